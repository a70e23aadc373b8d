// freeFunctions.cpp: console messages, the assertion report, banners, and the
// process-wide timers and counters.
#include "freeFunctions.h"

#include <sys/time.h>

#include <ctime>
#include <iomanip>
#include <iostream>
#include <map>
#include <utility>

VelmException::~VelmException() {}

const char* VelmException::what() const noexcept {
  return "\n  VELM EXCEPTION due to a bug _or_ wrong usage of Velm. If you think it is a \n  bug "
         "then please report this incident and it will be fixed quickly: velm3d-bugs@example.org";
}

namespace {

std::string colorString(const std::string& s, int mode, const char* code) {
  std::ostringstream oss;
  oss << '\033' << '[' << mode << code << s << '\033' << "[m";
  return oss.str();
}

void message(const std::string& line) {
  std::cout << std::endl;
  std::cout << line << std::endl << std::endl;
}

} // namespace

std::string redString(const std::string& s, int mode) { return colorString(s, mode, ";31m"); }
std::string greenString(const std::string& s, int mode) { return colorString(s, mode, ";32m"); }
std::string yellowString(const std::string& s, int mode) { return colorString(s, mode, ";33m"); }
std::string magentaString(const std::string& s, int mode) { return colorString(s, mode, ";35m"); }

void warning(const std::string& title, const std::string& msg) {
  message(yellowString("      " + title + ", WARNING: " + msg, 0));
}

void error(const std::string& title, const std::string& msg) {
  message(redString("      " + title + ", ERROR: " + msg, 0));
}

void info(const std::string& title, const std::string& msg) {
  if (title.empty()) {
    message("      INFO: " + msg);
  } else {
    message(magentaString("      " + title + ", INFO: " + msg, 0));
  }
}

namespace {
thread_local std::string lastAssertionReport;
} // namespace

const std::string& VelmException::lastReport() { return lastAssertionReport; }
void VelmException::carryReport(const std::string& report) { lastAssertionReport = report; }

void velmAssertionFailed(const char* expression, const char* file, int line) {
  lastAssertionReport = std::string("Condition [ ") + expression + " failed ] at " + file + ":" + std::to_string(line);
  error("Velm, ", std::string("Condition [ ") + expression + " failed ]");
  std::cout << "      " << file << ":" << line << std::endl;
  throw VelmException();
}

void fatBar(const std::string& msg, bool bHighlight, bool bBlankScreen) {
  std::string stars(msg.size() + 36, '*');
  stars += "\n";
  if (bHighlight) stars = redString(stars, 0);
  const std::string pad = bHighlight ? std::string(8, '\n') : std::string();
  const std::string blank = bBlankScreen ? std::string(100, '\n') : std::string();
  std::cout << "\n\n" + blank + pad + stars + stars + std::string(16, ' ') + msg + "\n" + stars + stars + pad;
}

std::string globalPrefix() {
  static int globalPrefixCtr = -1;
  ++globalPrefixCtr;
  std::ostringstream oss;
  oss << std::setw(5) << std::setfill('0') << globalPrefixCtr << "_";
  return oss.str();
}

namespace VELM3D {

std::string repstr(std::string s, const std::string& from, const std::string& to) {
  size_t pos = 0;
  while ((pos = s.find(from, pos)) != std::string::npos) {
    s.replace(pos, from.size(), to);
    pos += to.size();
  }
  return s;
}

void goToHell(const std::string& reason) {
  error("goToHell", " reason: " + reason);
  // A running number of these reports, so that repeated ones stand apart.
  static int numReports = 0;
  std::cout << ++numReports << std::endl;
}

double timer(const std::string& name) {
  static std::map<std::string, timeval> mTimers;
  auto it = mTimers.find(name);
  timeval now;
  gettimeofday(&now, nullptr);
  if (it == mTimers.end()) {
    mTimers[name] = now;
    std::cout << std::endl << "*** Timer [" << name << "] start" << std::endl;
    return -1.0;
  }
  const timeval& then = it->second;
  const int usec = static_cast<int>(now.tv_usec - then.tv_usec);
  const double elapsed = static_cast<double>(now.tv_sec - then.tv_sec) + usec / 1000000.0;
  std::cout << "*** Timer [" << name << "] stop, elapsed time: " << std::fixed << std::setprecision(3)
            << elapsed << " s" << std::endl
            << std::endl;
  mTimers.erase(it);
  return elapsed;
}

void stopWatch(const std::string& name) {
  static std::map<std::string, std::pair<unsigned long, long>> timers;
  auto it = timers.find(name);
  const unsigned long now = static_cast<unsigned long>(clock());
  if (it == timers.end()) {
    timers[name] = std::make_pair(now, 0L);
    std::cout << "\033[0;31m** stopWatch() START: " << name << "\033[m" << std::endl;
    return;
  }
  const double seconds = static_cast<double>(now - it->second.first) / 1000000.0;
  std::cout << "\033[0;31m** stopWatch() STOP: Time for " << name << ": [" << seconds
            << " s], Memory difference is: " << 0L << " Bytes=" << 0.0f << " MB" << std::endl;
  std::cout << "\033[m" << std::endl;
  timers.erase(it);
}

void benchCounter(const std::string& name) {
  static std::map<std::string, int> mItems;
  if (name == "GETCOUNTERS") {
    std::cout << std::endl << "Counters: " << std::endl;
    for (const auto& item : mItems) std::cout << item.first << "\t" << item.second << std::endl;
    std::cout << std::endl;
    return;
  }
  ++mItems[name];
}

} // namespace VELM3D

void benchCounter(std::string& name) { VELM3D::benchCounter(name); }
