// SPDX-License-Identifier: MIT
#include "DemoSupport.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace demo {

namespace {

struct NumberOption {
  const char* name;
  unsigned long Options::*field;
  unsigned long min;
  unsigned long max;
};

const NumberOption kNumberOptions[] = {
    {"--workers", &Options::workers, 1, 256},
    {"--events", &Options::events, 1, 100000000},
    {"--duration-ms", &Options::durationMs, 1, 600000},
};

unsigned long parseNumber(const std::string& option, const std::string& text, unsigned long min, unsigned long max) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    throw UsageError(option + " needs a whole number, not '" + text + "'");
  }
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (errno == ERANGE || value < min || value > max) {
    throw UsageError(option + " must be between " + std::to_string(min) + " and " + std::to_string(max) + ", not " +
                     text);
  }
  return static_cast<unsigned long>(value);
}

}  // namespace

void printHelp(std::FILE* out) {
  std::fputs(
      "Usage: vexutil-demo [options]\n"
      "\n"
      "Runs a small host on libvexutil: worker threads publish events, subscribers\n"
      "receive them by base and derived type names, a combined subscription batches\n"
      "edits until a commit, a subscriber hands work to the main loop, a subscriber\n"
      "fails, a subscriber's request is refused, context sets are made, saved,\n"
      "restored, cloned and destroyed, and everything is unsubscribed again. Prints\n"
      "what happened, with counts and timings, and exits 0 when every check passed.\n"
      "\n"
      "Options:\n"
      "  --workers N       worker threads that publish events (1-256, default 4)\n"
      "  --events N        events each worker publishes (1-100000000, default 5000)\n"
      "  --duration-ms N   time limit of the load phase in milliseconds; workers stop\n"
      "                    early when it is reached (1-600000, default 2000)\n"
      "  --quiet           print only the summary line and failed checks (the\n"
      "                    manager's report of the failing subscriber still appears)\n"
      "  --help            print this help and exit\n"
      "\n"
      "Options that take a number accept \"--option N\" and \"--option=N\".\n"
      "Exit status: 0 all checks passed, 1 a check failed, 2 bad options.\n",
      out);
}

Options parseOptions(int argc, const char* const* argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    std::string name = argument;
    std::string value;
    bool hasValue = false;
    const std::size_t equals = argument.find('=');
    if (argument.compare(0, 2, "--") == 0 && equals != std::string::npos) {
      name = argument.substr(0, equals);
      value = argument.substr(equals + 1);
      hasValue = true;
    }
    if (name == "--help" || name == "-h" || name == "--quiet" || name == "-q") {
      if (hasValue) {
        throw UsageError(name + " takes no value");
      }
      if (name == "--help" || name == "-h") {
        options.help = true;
      } else {
        options.quiet = true;
      }
      continue;
    }
    const NumberOption* match = nullptr;
    for (const NumberOption& candidate : kNumberOptions) {
      if (name == candidate.name) {
        match = &candidate;
      }
    }
    if (match == nullptr) {
      if (argument.empty() || argument[0] != '-') {
        throw UsageError("unexpected argument '" + argument + "'");
      }
      throw UsageError("unknown option '" + argument + "'");
    }
    if (!hasValue) {
      if (i + 1 >= argc) {
        throw UsageError(name + " needs a value");
      }
      value = argv[++i];
    }
    options.*(match->field) = parseNumber(name, value, match->min, match->max);
  }
  return options;
}

std::string format(const char* pattern, ...) {
  va_list args;
  va_start(args, pattern);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, pattern, copy);
  va_end(copy);
  std::string text;
  if (length > 0) {
    text.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), pattern, args);
    text.resize(static_cast<std::size_t>(length));
  }
  va_end(args);
  return text;
}

std::string humanTime(double microseconds) {
  if (microseconds < 10.0) {
    return format("%.2f us", microseconds);
  }
  if (microseconds < 1000.0) {
    return format("%.0f us", microseconds);
  }
  if (microseconds < 1000000.0) {
    return format("%.2f ms", microseconds / 1000.0);
  }
  return format("%.2f s", microseconds / 1000000.0);
}

void Narrator::line(const char* pattern, ...) const {
  if (quiet_) {
    return;
  }
  va_list args;
  va_start(args, pattern);
  std::vprintf(pattern, args);
  va_end(args);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

bool Narrator::check(bool passed, const std::string& text) {
  ++checks_;
  if (!passed) {
    ++failures_;
    std::fprintf(stderr, "vexutil-demo: check FAILED: %s\n", text.c_str());
  }
  line("   %-74s %s", text.c_str(), passed ? "ok" : "FAILED");
  return passed;
}

Samples::Summary Samples::summary() const {
  std::vector<double> values;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    values = values_;
  }
  Summary result;
  result.count = values.size();
  if (values.empty()) {
    return result;
  }
  std::sort(values.begin(), values.end());
  double total = 0;
  for (double value : values) {
    total += value;
  }
  result.mean = total / static_cast<double>(values.size());
  result.median = values[values.size() / 2];
  result.p99 = values[std::min(values.size() - 1, values.size() * 99 / 100)];
  result.max = values.back();
  return result;
}

}  // namespace demo
