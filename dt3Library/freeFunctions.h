// freeFunctions.h: the console and failure frame of libvelm3d.
//
// Three kinds of bad ending exist in the library and all of them start here:
//  - an assertion report (VELM_ASSERT): a red "Condition [ ... failed ]" line,
//    the source position, then a VelmException. Internal conditions stay on
//    in release builds;
//  - a fatal exit: one line on the standard output and exit status 1
//    (pools, broken neighbourhood, invalid key length, unwritable file);
//  - a printed message (warning, error, goToHell) after which the caller
//    simply goes on.
// Besides, the timers and counters that programs using the library share.
// Every console line of the library goes through consoleLine, so that lines
// printed from two threads never interleave; the timers, counters and the
// file prefix counter are guarded too and may be used from any thread.
#pragma once

#include <exception>
#include <sstream>
#include <string>

// The only exception the library throws on purpose. It carries no data: the
// failed condition has already been printed when it is thrown, and
// lastReport keeps it for a caller that shows no console.
class VelmException : public std::exception {
public:
  ~VelmException() override;
  const char* what() const noexcept override;
  // The last assertion report of the calling thread, on one line and without
  // colour: "Condition [ <condition> failed ] at <file>:<line>"; empty when
  // the thread has made none.
  static const std::string& lastReport();
  // Makes report the calling thread's last report: a threaded insertion
  // hands a failed thread's report to the caller's thread with the exception.
  static void carryReport(const std::string& report);
};

// Writes text and a newline to std::cout in one piece under a process-wide
// lock, then flushes; text may hold newlines of its own.
void consoleLine(const std::string& text);
// An empty string stream with std::cout's number format (flags, precision,
// fill), to assemble a line for consoleLine that prints as std::cout would.
std::ostringstream consoleStream();

std::string redString(const std::string& s, int mode = 0);
std::string greenString(const std::string& s, int mode = 0);
std::string yellowString(const std::string& s, int mode = 0);
std::string magentaString(const std::string& s, int mode = 0);

void warning(const std::string& title, const std::string& msg);
void error(const std::string& title, const std::string& msg);
void info(const std::string& title, const std::string& msg);

// Prints the assertion report for `expression` at file:line and throws.
[[noreturn]] void velmAssertionFailed(const char* expression, const char* file, int line);

// VELM_ASSERT(cond): the condition's text is taken after macro expansion of
// its arguments (so NULL reads as __null), as the reports show it.
#define VELM_ASSERT_EXPANDED_(expr, text)                                      \
  do {                                                                         \
    if (!(expr)) velmAssertionFailed(text, __FILE__, __LINE__);                \
  } while (false)
#define VELM_ASSERT_STRINGIZE_(expr) VELM_ASSERT_EXPANDED_(expr, #expr)
#define VELM_ASSERT(expr) VELM_ASSERT_STRINGIZE_(expr)

void fatBar(const std::string& msg, bool bHighlight, bool bBlankScreen);

template <typename T> std::string toString(const T& value) {
  std::ostringstream oss;
  oss << value;
  return oss.str();
}

std::string globalPrefix();

namespace VELM3D {

std::string repstr(std::string s, const std::string& from, const std::string& to);
void goToHell(const std::string& reason);

// Wall-clock timer: the first call with a name starts it (result -1.0), the
// second stops it, prints and returns the elapsed seconds. Stopping sets
// std::cout to fixed notation with 3 decimals, and that setting stays.
double timer(const std::string& name);
// Processor-time stop watch with the same start/stop protocol.
void stopWatch(const std::string& name);
// Counts events by name; the name "GETCOUNTERS" lists all counts instead.
void benchCounter(const std::string& name);

} // namespace VELM3D

void benchCounter(std::string& name);
