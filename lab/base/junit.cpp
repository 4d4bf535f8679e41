#include "lab/base/junit.h"

#include <cstdio>

#include "lab/base/markup.h"

namespace lab {
namespace {

using ending = junit_case::ending;

struct counters {
  std::array<size_t, 4> endings{};  // by ending
  std::optional<double> seconds;

  void add(const counters &other) {
    for (size_t i = 0; i < endings.size(); ++i)
      endings[i] += other.endings[i];
    if (other.seconds) seconds = seconds.value_or(0) + *other.seconds;
  }
};

// Whole seconds as such, else three digits.
void add_time(std::optional<double> seconds, markup_attributes *to) {
  if (!seconds) return;
  char text[32];
  const bool whole = *seconds == static_cast<double>(static_cast<int64_t>(*seconds));
  (void)std::snprintf(text, sizeof text, "%.*f", whole ? 0 : 3, *seconds);
  to->emplace_back("time", text);
}

markup_attributes attributes_of(const std::string &name, const counters &all) {
  const auto count = [&](ending one) { return all.endings[static_cast<size_t>(one)]; };
  markup_attributes list{
      {"name", name},
      {"tests", count(ending::pass) + count(ending::failure) + count(ending::error) + count(ending::skipped)},
      {"failures", count(ending::failure)},
      {"errors", count(ending::error)},
      {"skipped", count(ending::skipped)}};
  add_time(all.seconds, &list);
  return list;
}

markup text_element(std::string_view name, const std::string &text) {
  return text.empty() ? markup() : element(name, text);
}

markup ending_of(const junit_case &one) {
  switch (one.result) {
    case ending::pass:
      return {};
    case ending::failure:
      return element("failure", {{"message", one.message}, {"type", one.type}});
    case ending::error:
      return element("error", {{"message", one.message}, {"type", one.type}});
    case ending::skipped:
      return element("skipped", {{"message", one.message}});
  }
  return {};
}

markup case_xml(const junit_case &one) {
  markup_attributes list{{"classname", one.class_name}, {"name", one.name}};
  add_time(one.seconds, &list);
  return "    " + element("testcase", list, ending_of(one) + text_element("system-out", one.output)) + "\n";
}

markup suite_xml(const junit_suite &suite, counters *all) {
  counters own{{}, suite.seconds};
  markup cases;
  for (const auto &one : suite.cases) {
    ++own.endings[static_cast<size_t>(one.result)];
    cases += case_xml(one);
  }
  all->add(own);
  markup properties;
  for (const auto &[name, value] : suite.properties)
    if (!value.empty()) properties += element("property", {{"name", name}, {"value", value}});
  auto list = attributes_of(suite.name, own);
  if (!suite.timestamp.empty()) list.emplace_back("timestamp", suite.timestamp);
  if (!suite.hostname.empty()) list.emplace_back("hostname", suite.hostname);
  if (!properties.empty()) properties = "    " + element("properties", properties) + "\n";
  return "  " +
         element("testsuite", list,
                 "\n" + properties + cases + text_element("system-out", suite.output) +
                     text_element("system-err", suite.errors) + "  ") +
         "\n";
}

}  // namespace

std::string junit_xml(const std::string &name, const std::vector<junit_suite> &suites) {
  counters all;
  markup xml("\n");
  for (const auto &suite : suites)
    xml += suite_xml(suite, &all);
  const auto head = markup::raw("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
  return (head + element("testsuites", attributes_of(name, all), xml) + "\n").str();
}

}  // namespace lab
