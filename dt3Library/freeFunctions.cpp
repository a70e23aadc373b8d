// freeFunctions.cpp: console messages, the assertion report, banners, and the
// process-wide timers and counters.
//
// All console output of the library ends in writeConsole: one write of whole
// lines under consoleMutex. A message is assembled first, with std::cout's
// number format where it prints numbers, so that its bytes are those that
// streaming each piece to std::cout would give. The maps of the timers and
// counters each have their own lock, taken only around the map's use.
#include "freeFunctions.h"

#include <sys/time.h>

#include <ctime>
#include <iomanip>
#include <iostream>
#include <atomic>
#include <map>
#include <mutex>
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

std::mutex consoleMutex;

void writeConsole(const std::string& text) {
  const std::lock_guard<std::mutex> lock(consoleMutex);
  // A line streamed to std::cout would have used up a pending field width.
  std::cout.width(0);
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
  std::cout.flush();
}

// A message stands between a blank line above and one below.
std::string messageText(const std::string& line) { return "\n" + line + "\n\n"; }

void message(const std::string& line) { writeConsole(messageText(line)); }

std::string errorLine(const std::string& title, const std::string& msg) {
  return redString("      " + title + ", ERROR: " + msg, 0);
}

} // namespace

void consoleLine(const std::string& text) { writeConsole(text + "\n"); }

std::ostringstream consoleStream() {
  std::ostringstream oss;
  const std::lock_guard<std::mutex> lock(consoleMutex);
  oss.flags(std::cout.flags());
  oss.precision(std::cout.precision());
  oss.fill(std::cout.fill());
  oss.imbue(std::cout.getloc());
  return oss;
}

std::string redString(const std::string& s, int mode) { return colorString(s, mode, ";31m"); }
std::string greenString(const std::string& s, int mode) { return colorString(s, mode, ";32m"); }
std::string yellowString(const std::string& s, int mode) { return colorString(s, mode, ";33m"); }
std::string magentaString(const std::string& s, int mode) { return colorString(s, mode, ";35m"); }

void warning(const std::string& title, const std::string& msg) {
  message(yellowString("      " + title + ", WARNING: " + msg, 0));
}

void error(const std::string& title, const std::string& msg) {
  message(errorLine(title, msg));
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
  // The report and its source position go out as one piece.
  std::ostringstream position = consoleStream();
  position << "      " << file << ":" << line << "\n";
  writeConsole(messageText(errorLine("Velm, ", std::string("Condition [ ") + expression + " failed ]")) +
               position.str());
  throw VelmException();
}

void fatBar(const std::string& msg, bool bHighlight, bool bBlankScreen) {
  std::string stars(msg.size() + 36, '*');
  stars += "\n";
  if (bHighlight) stars = redString(stars, 0);
  const std::string pad = bHighlight ? std::string(8, '\n') : std::string();
  const std::string blank = bBlankScreen ? std::string(100, '\n') : std::string();
  writeConsole("\n\n" + blank + pad + stars + stars + std::string(16, ' ') + msg + "\n" + stars + stars + pad);
}

std::string globalPrefix() {
  // One atomic step per call: each caller, on any thread, gets its own number.
  static std::atomic<int> globalPrefixCtr{-1};
  const int number = ++globalPrefixCtr;
  std::ostringstream oss;
  oss << std::setw(5) << std::setfill('0') << number << "_";
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
  // A running number of these reports, so that repeated ones stand apart.
  static std::atomic<int> numReports{0};
  std::ostringstream number = consoleStream();
  number << ++numReports << "\n";
  writeConsole(messageText(errorLine("goToHell", " reason: " + reason)) + number.str());
}

double timer(const std::string& name) {
  static std::mutex mutex;
  static std::map<std::string, timeval> mTimers;
  timeval now;
  gettimeofday(&now, nullptr);
  timeval then = now;
  bool bStarted = false;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    auto it = mTimers.find(name);
    if (it == mTimers.end()) {
      mTimers[name] = now;
      bStarted = true;
    } else {
      then = it->second;
      mTimers.erase(it);
    }
  }
  if (bStarted) {
    consoleLine("\n*** Timer [" + name + "] start");
    return -1.0;
  }
  const int usec = static_cast<int>(now.tv_usec - then.tv_usec);
  const double elapsed = static_cast<double>(now.tv_sec - then.tv_sec) + usec / 1000000.0;
  std::ostringstream oss = consoleStream();
  oss << "*** Timer [" << name << "] stop, elapsed time: " << std::fixed << std::setprecision(3) << elapsed
      << " s\n";
  {
    // The fixed notation with 3 decimals stays on std::cout from here on.
    const std::lock_guard<std::mutex> lock(consoleMutex);
    std::cout << std::fixed << std::setprecision(3);
  }
  consoleLine(oss.str());
  return elapsed;
}

void stopWatch(const std::string& name) {
  static std::mutex mutex;
  static std::map<std::string, std::pair<unsigned long, long>> timers;
  const unsigned long now = static_cast<unsigned long>(clock());
  unsigned long then = 0;
  bool bStarted = false;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    auto it = timers.find(name);
    if (it == timers.end()) {
      timers[name] = std::make_pair(now, 0L);
      bStarted = true;
    } else {
      then = it->second.first;
      timers.erase(it);
    }
  }
  if (bStarted) {
    consoleLine("\033[0;31m** stopWatch() START: " + name + "\033[m");
    return;
  }
  const double seconds = static_cast<double>(now - then) / 1000000.0;
  std::ostringstream oss = consoleStream();
  oss << "\033[0;31m** stopWatch() STOP: Time for " << name << ": [" << seconds
      << " s], Memory difference is: " << 0L << " Bytes=" << 0.0f << " MB\n\033[m";
  consoleLine(oss.str());
}

void benchCounter(const std::string& name) {
  static std::mutex mutex;
  static std::map<std::string, int> mItems;
  if (name == "GETCOUNTERS") {
    std::ostringstream oss = consoleStream();
    oss << "\nCounters: \n";
    {
      const std::lock_guard<std::mutex> lock(mutex);
      for (const auto& item : mItems) oss << item.first << "\t" << item.second << "\n";
    }
    consoleLine(oss.str());
    return;
  }
  const std::lock_guard<std::mutex> lock(mutex);
  ++mItems[name];
}

} // namespace VELM3D

void benchCounter(std::string& name) { VELM3D::benchCounter(name); }
