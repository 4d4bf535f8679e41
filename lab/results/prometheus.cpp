#include <array>

#include "lab/results/device_results.h"

namespace lab {
namespace {

// Everything that needs attention is below 1, so that one comparison finds it.
constexpr char meaning[] = ": 1 pass, 2 skipped, 0 fail, -1 not known.";

const char *value_of(verdict result) {
  constexpr std::array<const char *, 4> values = {"1", "0", "2", "-1"};
  return values[static_cast<size_t>(result)];
}

std::string label(std::string_view name, std::string_view value) {
  std::string out = std::string(name) + "=\"";
  for (const char c : value) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

class metrics {
 public:
  // The labels are those of every sample.
  explicit metrics(std::string labels) : m_labels(std::move(labels)) {}

  void begin(const std::string &name, const std::string &help) {
    m_name = name;
    m_out += "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
  }
  void sample(const std::string &labels, const std::string &value) {
    m_out += m_name + "{" + labels + (labels.empty() ? "" : ",") + m_labels + "} " + value + "\n";
  }
  [[nodiscard]] std::string text() && { return std::move(m_out); }

 private:
  std::string m_labels;
  std::string m_name;
  std::string m_out;
};

// An empty label is none.
std::string identity(const device_results &results) {
  return label("card", results.board.card ? std::to_string(*results.board.card) : "") + "," +
         label("part", results.board.part) + "," + label("serial", results.board.serial) + "," +
         label("change_bits", change_bits_text(results));
}

std::string device_labels(const test_case &one) {
  return label("test", rows[one.row].key) + "," + label("device", std::to_string(one.device)) + "," +
         label("name", one.part());
}

}  // namespace

std::string prometheus(const device_results &results) {
  metrics out(identity(results));
  out.begin("post_verdict", std::string("Result of the last power-on self-test") + meaning);
  out.sample("", value_of(run_verdict(results.run)));
  out.begin("post_device_result", std::string("Result of a device in the last power-on self-test") + meaning);
  for (const test_case &one : results.run.cases)
    out.sample(device_labels(one), value_of(one.result));
  out.begin("post_duration_seconds", "Duration of a test of the last power-on self-test, in whole seconds.");
  for (size_t row = 0; row < row_count; ++row) {
    if (results.run.seconds[row])
      out.sample(label("test", rows[row].key), std::to_string(seconds_of(results.run, row)));
  }
  out.begin("post_end_time_seconds", "End of the last power-on self-test, in seconds since 1970.");
  out.sample("", std::to_string(results.ended));
  if (run_verdict(results.run) == verdict::error) return std::move(out).text();
  out.begin("post_short_test", "1 if the last power-on self-test was the short one, which tests no memory.");
  out.sample("", results.run.short_test == true ? "1" : "0");
  return std::move(out).text();
}

}  // namespace lab
