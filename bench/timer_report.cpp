#include "bench/timer_report.h"

#include <cstdio>

namespace {

struct row_t {
  const char *measurement;
  bool in_aim;
};

// In order of the table.
constexpr row_t rows[] = {
    {"start", false},
    {"stop", false},
    {"start + stop", true},
    {"restart", false},
    {"tick", true},
    {"mixed tick", false},
    {"mixed tick, one period", false},
    {"stop in a crowd", false},
    {"bytes per timer", false},
};

constexpr uint32_t aim_from = 1000;  // timers

constexpr char head[] = R"(# The timer service beside other timers

Made by `tools/bench-timer`; the same numbers are in `bench-timer.json`. Times are in nanoseconds, the best of
seven runs (of three with 1,000,000 timers), in which the contenders took turns at random. In brackets: how many times
as much as the timer service's, so that above 1 the timer service is cheaper.

)";

constexpr char explanation[] = R"(## What the rows are

A tick is a millisecond. Every contender gets the same timers, periods and order of operations from one seed; what
expires is counted, and the run fails if the contenders disagree. The wheel has a bucket for four timers (a power of two,
at least 1,024); periods are spread evenly over twice the wheel.

| Row | Operation |
|---|---|
| start | start of an inactive timer, until all are active; from an empty wheel, so that most starts allocate |
| stop | stop of an active timer, until none is, in an order unrelated to that of the starts |
| restart | start of an active timer with another period |
| tick | a tick with all timers active; what expires starts again in its callback |
| mixed tick | a tick, 5 restarts, 4 stops and 4 starts, so that most timers are stopped before they expire |
| mixed tick, one period | the same with one period of 30,000 ticks for all, far beyond a small wheel |
| stop in a crowd | stop of an active timer, all timers being due at one tick |
| bytes per timer | heap in use with all timers active, wheel or loop included |

The peers are not charged for system calls: the clock that they read is a variable of the benchmark, which a tick moves
by a millisecond, and their poll for descriptors returns at once. Long measurements count the thread's processor time,
short ones (start and stop up to 1,000 timers, stop in a crowd) the time-stamp counter.
)";

constexpr char limits[] =
    R"(- An expiry entry is a queue that links one way, so that a stop walks the timers of the same tick: stopping a whole
  crowd takes quadratic time. Expiring it takes linear time.
- A start walks the entries of its bucket, also those that stopped timers left empty, so that periods of many times the
  wheel cost. A wheel as long as the longest usual period avoids it, for 24 bytes a bucket.
)";

std::string decimal(double value, int digits) {
  char text[64];
  (void)snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string grouped(uint32_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;)
    text.insert(at -= 3, ",");
  return text;
}

std::string number(double value) {
  return value < 100 ? decimal(value, 1) : grouped(static_cast<uint32_t>(value + 0.5));
}

std::string times(double ratio) {
  if (ratio < 0.01) return "<0.01×";
  return decimal(ratio, ratio < 10 ? 2 : ratio < 100 ? 1 : 0) + "×";
}

std::string quoted(const std::string &text) {
  std::string escaped;
  for (char c : text) {
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return "\"" + escaped + "\"";
}

double value_of(const timer_report::measurements_t &values, const std::string &measurement) {
  if (measurement == "start + stop") return values.at("start") + values.at("stop");
  return values.at(measurement);
}

using by_contender_t = std::map<std::string, timer_report::measurements_t>;

std::string machine_table(const timer_report &report) {
  std::string text = "| Machine | |\n|---|---|\n";
  for (const auto &[name, value] : report.machine)
    text += "| " + name + " | " + value + " |\n";
  return text + "\n";
}

std::string size_table(const timer_report &report, uint32_t timers, const by_contender_t &results) {
  std::string text = "## " + grouped(timers) + " timers\n\n| |";
  std::string rule = "|---|";
  for (const auto &contender : report.contenders) {
    text += " " + contender + " |";
    rule += "--:|";
  }
  text += "\n" + rule + "\n";
  for (const auto &row : rows) {
    text += std::string{"| "} + row.measurement + " |";
    const double own = value_of(results.at(report.contenders[0]), row.measurement);
    for (const auto &contender : report.contenders) {
      const double value = value_of(results.at(contender), row.measurement);
      text += " " + number(value);
      if (contender != report.contenders[0]) text += " (" + times(value / own) + ")";
      text += " |";
    }
    text += "\n";
  }
  return text + "\n";
}

// A line for each row and size in which one of the two peers is cheaper.
std::string lost_rows(const timer_report &report, bool aim) {
  std::string text;
  for (const auto &[timers, results] : report.results) {
    for (const auto &row : rows) {
      if (aim != (row.in_aim && timers >= aim_from)) continue;
      std::string peers;
      for (size_t i = 1; i <= 2; i++) {
        const double ratio = value_of(results.at(report.contenders[i]), row.measurement) /
                             value_of(results.at(report.contenders[0]), row.measurement);
        if (ratio < 1) peers += (peers.empty() ? "" : ", ") + report.contenders[i] + " " + times(ratio);
      }
      if (!peers.empty()) text += "  - " + grouped(timers) + " timers, " + row.measurement + ": " + peers + "\n";
    }
  }
  return text;
}

std::string verdict(const timer_report &report) {
  std::string text = "## What they say\n\n";
  const std::string missed = lost_rows(report, true);
  text += "- The aim, a start plus a stop and a tick cheaper than libevent's and libuv's from 1,000 timers up, is ";
  text += missed.empty() ? "met at every size.\n" : "missed here:\n" + missed;
  const std::string others = lost_rows(report, false);
  if (!others.empty()) text += "- Outside the aim one of them is cheaper here:\n" + others;
  text += limits;
  text += "- All this is tick mode. In polled mode a start takes " + number(report.polled_start_ns);
  return text + " ns more: it reads the time-stamp counter and divides twice.\n\n";
}

}  // namespace

std::string timer_report::markdown() const {
  std::string text = head + machine_table(*this);
  for (const auto &[timers, by_contender] : results)
    text += size_table(*this, timers, by_contender);
  return text + verdict(*this) + explanation;
}

std::string timer_report::json() const {
  std::string text = "{\n  \"machine\": {";
  const char *separator = "\n";
  for (const auto &[name, value] : machine) {
    text += separator + ("    " + quoted(name) + ": " + quoted(value));
    separator = ",\n";
  }
  text += "\n  },\n  \"polled mode adds to a start\": " + decimal(polled_start_ns, 1) + ",\n  \"results\": [";
  separator = "\n";
  for (const auto &[timers, by_contender] : results) {
    for (const auto &row : rows) {
      const double own = value_of(by_contender.at(contenders[0]), row.measurement);
      for (const auto &contender : contenders) {
        const double value = value_of(by_contender.at(contender), row.measurement);
        text += separator + ("    {\"timers\": " + std::to_string(timers)) +
                ", \"measurement\": " + quoted(row.measurement) + ", \"contender\": " + quoted(contender) +
                ", \"value\": " + decimal(value, 2) + ", \"ratio\": " + decimal(value / own, 4) + "}";
        separator = ",\n";
      }
    }
  }
  return text + "\n  ]\n}\n";
}
