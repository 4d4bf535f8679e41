#include "lab/html.h"

#include "lab/drawing.h"
#include "lab/markup.h"
#include "lab/table.h"
#include "lab/text.h"

namespace lab {
namespace {

constexpr std::string_view style = R"css(
:root { color-scheme: light dark; --ink: #1b1f24; --paper: #fff; --faint: #57606a; --line: #d0d7de; --soft: #f3f5f7;
  --found: #1a7f4b; --blamed: #9a6700; --missed: #c0312b; --ended: #6f42c1; --hung: #9c2f7c; --damaged: #a13600;
  --other: #6e7781; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6edf3; --paper: #14181d; --faint: #9aa4af; --line: #343b44;
  --soft: #1e242b; --found: #2ea065; --blamed: #bb8009; --missed: #e5534b; --ended: #986ee2; --hung: #c95fa8;
  --damaged: #d26a2b; --other: #768390; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 80rem; font: 15px/1.5 system-ui, sans-serif; color: var(--ink);
  background: var(--paper); overflow-wrap: break-word; }
h1 { font-size: 1.5rem; margin: 0 0 .25rem; } h2 { font-size: 1.15rem; margin: 2rem 0 .5rem; }
p { margin: .25rem 0 .75rem; max-width: 60rem; } .faint { color: var(--faint); }
code { font: 13px/1.4 ui-monospace, monospace; overflow-wrap: anywhere; }
table { border-collapse: collapse; } th, td { text-align: left; padding: .2rem .7rem .2rem 0; vertical-align: top; }
.counts td:nth-child(2), .counts td:nth-child(3), .num { text-align: right; white-space: nowrap; }
.bar { display: block; height: .7rem; min-width: 2px; border-radius: 2px; background: currentColor; margin-top: .35rem; }
.barcell { width: 40%; min-width: 5rem; }
.tag { font-weight: 600; }
details { border-left: 3px solid var(--line); padding: .1rem 0 .1rem .7rem; margin: .4rem 0; }
summary { cursor: pointer; } details ul { margin: .3rem 0; padding-left: 1.1rem; }
.memories { display: flex; flex-wrap: wrap; gap: 1.2rem; align-items: flex-start; }
figure { margin: 0; width: 17.5rem; max-width: 100%; } figcaption { font-weight: 600; }
svg { display: block; width: 100%; height: auto; margin: .3rem 0 1rem; }
svg text { font: 11px ui-monospace, monospace; fill: var(--ink); text-anchor: middle; }
svg .pin { fill: var(--faint); text-anchor: start; } svg .end { text-anchor: end; } svg .level { fill: var(--faint); }
svg .name { font: 600 14px system-ui, sans-serif; } svg .body { fill: var(--soft); stroke: var(--line); }
svg .wire { stroke: var(--line); stroke-width: 2; } svg g text { fill: #fff; font-size: 13px; }
svg path { stroke: var(--paper); stroke-width: .7; } svg path.o-found { opacity: .5; } .legend { display: flex; flex-wrap: wrap; gap: .2rem 1.2rem; }
.o-found, .o-healthy { color: var(--found); fill: var(--found); } .o-blamed { color: var(--blamed); fill: var(--blamed); }
.o-missed, .o-false-alarm { color: var(--missed); fill: var(--missed); }
.o-ended { color: var(--ended); fill: var(--ended); } .o-hung { color: var(--hung); fill: var(--hung); }
.o-damaged { color: var(--damaged); fill: var(--damaged); }
.o-not-fired, .o-refused { color: var(--other); fill: var(--other); }
.o-none { fill: none; } .o-none rect, path.o-none { fill: var(--paper); stroke: var(--line); stroke-width: 1; }
#filters { display: flex; flex-wrap: wrap; gap: .5rem; margin: .5rem 0; align-items: center; }
#filters input, #filters select { font: inherit; padding: .25rem .4rem; max-width: 100%; color: inherit;
  background: var(--paper); border: 1px solid var(--line); border-radius: 4px; }
#filters input { flex: 1 1 14rem; }
.matrix { width: 100%; font-size: 13px; } .matrix th { border-bottom: 2px solid var(--line); position: sticky; top: 0;
  background: var(--paper); } .matrix td { border-bottom: 1px solid var(--line); } [hidden] { display: none !important; }
@media (max-width: 50rem) {
  .matrix thead { display: none; } .matrix, .matrix tbody, .matrix tr, .matrix td { display: block; }
  .matrix tr { border-bottom: 1px solid var(--line); padding: .5rem 0; } .matrix td { border: 0; padding: 0;
    text-align: left; }
  .matrix td:empty { display: none; } .matrix td[data-l] { display: inline-block; margin-right: .8em; } .matrix td[data-l]::before { content: attr(data-l) ": "; color: var(--faint); }
  figure { width: 100%; max-width: 22rem; margin: 0 auto; } .barcell { display: none; }
}
)css";

constexpr std::string_view script = R"js(
(() => {
  const rows = [...document.querySelectorAll('#runs tr')];
  const filters = document.getElementById('filters');
  const text = filters.querySelector('input');
  const selects = [...filters.querySelectorAll('select')];
  const shown = filters.querySelector('output');
  for (const select of selects) {
    const values = [...new Set(rows.map(row => row.dataset[select.name]))].sort();
    for (const value of values) select.append(new Option(value, value));
  }
  const apply = () => {
    const words = text.value.toLowerCase().split(/\s+/);
    let count = 0;
    for (const row of rows) {
      const content = row.textContent.toLowerCase();
      row.hidden = !words.every(word => content.includes(word)) ||
        selects.some(select => select.value && row.dataset[select.name] !== select.value);
      if (!row.hidden) ++count;
    }
    shown.value = count + ' of ' + rows.length + ' runs';
  };
  filters.hidden = false;
  filters.addEventListener('input', apply);
  apply();
})();
)js";

std::string code(std::string_view text) {
  return element("code", escape_markup(text));
}

std::string tag_of(outcome end) {
  const auto &text = text_of(end);
  return element("span", {{"class", "tag o-" + std::string(text.name)}},
                 std::string(text.mark) + " " + std::string(text.title));
}

std::string tag_of(const run_result &run) {
  return element("span", {{"class", "tag " + style_class(run)}},
                 std::string(text_of(run.end).mark) + " " + title_of(run));
}

std::string fault_of(const run_item &run) {
  auto text = run.fault.empty() ? "healthy board" : run.fault;
  if (run.repeat > 0) text += " #" + std::to_string(run.repeat + 1);
  return text;
}

std::string board_of(const run_item &run) {
  return std::to_string(run.board.card) + " " + run.board.revision;
}

std::string counts_table(const matrix &all) {
  const auto counts = count_outcomes(all.runs);
  std::string html;
  for (size_t i = 0; i < outcome_count; ++i) {
    if (counts[i] == 0) continue;
    const auto end = static_cast<outcome>(i);
    const auto part = 100 * counts[i] / std::max<size_t>(all.runs.size(), 1);
    const auto bar = element("span", {{"class", "bar o-" + std::string(text_of(end).name)},
                                      {"style", "width:" + std::to_string(part) + "%"}});
    html += element("tr", element("td", tag_of(end)) + element("td", share(counts[i], all.runs.size())) +
                              element("td", {{"class", "barcell"}}, bar)) +
            "\n";
  }
  return element("table", {{"class", "counts"}}, html);
}

std::string legend() {
  std::string html;
  for (const auto end : {outcome::found, outcome::blamed, outcome::missed, outcome::ended, outcome::hung,
                         outcome::damaged, outcome::not_fired})
    html += tag_of(end);
  return element("p", {{"class", "legend"}}, html);
}

std::string group_html(const reason_group &group) {
  std::string list;
  for (const auto &pattern : group.patterns())
    list += element("li", code(pattern)) + "\n";
  const auto reason = group.reason.empty() ? "the reason is not known" : escape_markup(group.reason);
  return element("details", element("summary", tag_of(*group.runs.front()) + ", " + std::to_string(group.runs.size()) +
                                                   ": " + reason) +
                                element("ul", list)) +
         "\n";
}

std::string groups_html(const matrix &all) {
  std::string html;
  for (const auto &group : groups_of(all))
    html += group_html(group);
  if (html.empty()) return "";
  return element("h2", "What was not found by the right device, and why") + "\n" + html;
}

std::string left_out_html(const matrix &all) {
  if (all.left_out.empty()) return "";
  std::string list;
  for (const auto &[fault, reason] : all.left_out)
    list += element("li", code(fault) + ": " + escape_markup(reason));
  return element("h2", "Left out of this space") + element("ul", list) + "\n";
}

std::string rates_html(const matrix &all) {
  if (all.repeats < 2) return "";
  std::string rows;
  for (const auto &rate : rates(all)) {
    std::string range;
    if (rate.fired > 0) {
      const auto bounds = wilson(rate.found, rate.fired);
      range = percent(bounds.low) + " to " + percent(bounds.high);
    }
    rows += element("tr", element("td", code(rate.what.fault)) + element("td", std::to_string(rate.fired)) +
                              element("td", share(rate.found, rate.fired)) + element("td", range) +
                              element("td", rate.first_found ? std::to_string(*rate.first_found) : "-") +
                              element("td", all.times && rate.seconds_to_found ? seconds_text(*rate.seconds_to_found)
                                                                               : "-")) +
            "\n";
  }
  const std::string_view head =
      "<tr><th>Fault</th><th>Fired in</th><th>Found of these</th><th>95 % interval</th>"
      "<th>First found in run</th><th>after</th></tr>\n";
  return element("h2", "Detection of intermittent faults") + element("table", std::string(head) + rows) + "\n";
}

std::string run_row(const run_result &run) {
  std::string reported;
  for (const auto &device : run.reported)
    reported += (reported.empty() ? "" : ", ") + device;
  const auto kind = run.what.fault.substr(0, run.what.fault.find(' '));
  auto told = run.line.empty() ? "" : code(run.line);
  if (run.explained && !run.explained->text.empty()) told += element("div", escape_markup(run.explained->text));
  if (!run.contents.empty()) told += element("div", {{"class", "faint"}}, escape_markup(run.contents));
  if (!run.reason.empty()) told += element("div", {{"class", "faint"}}, escape_markup(run.reason));
  const auto cell = [](std::string_view label, std::string_view content) {
    return element("td", {{"data-l", label}}, content);
  };
  return element("tr", {{"data-outcome", title_of(run)}, {"data-kind", kind}, {"data-board", board_of(run.what)}},
                 element("td", tag_of(run)) + element("td", code(fault_of(run.what))) +
                     cell("board", board_of(run.what)) + cell("mode", name_of(run.what.mode)) +
                     cell("fired", fired_text(run)) + cell("verdict", run.verdict) +
                     (reported.empty() ? "<td></td>" : cell("reported by", reported)) +
                     cell("exit", std::to_string(run.status)) + element("td", told)) +
         "\n";
}

std::string matrix_html(const matrix &all) {
  std::string rows;
  for (const auto &run : all.runs)
    rows += run_row(run);
  const std::string_view filters =
      "<form id=\"filters\" hidden onsubmit=\"return false\"><input type=\"search\" aria-label=\"words\" "
      "placeholder=\"words of a run\">"
      "<select name=\"outcome\" aria-label=\"outcome\"><option value=\"\">every outcome</option></select>"
      "<select name=\"kind\" aria-label=\"fault\"><option value=\"\">every fault</option></select>"
      "<select name=\"board\" aria-label=\"board\"><option value=\"\">every board</option></select>"
      "<output></output></form>\n";
  const std::string_view head =
      "<thead><tr><th>Outcome</th><th>Fault</th><th>Board</th><th>Mode</th><th>Fired</th>"
      "<th>Verdict</th><th>Reported by</th><th>Exit</th>"
      "<th>First line, explanation, contents, reason</th></tr></thead>\n";
  return element("h2", "The matrix") + "\n" + std::string(filters) +
         element("table", {{"class", "matrix"}}, std::string(head) + element("tbody", {{"id", "runs"}}, "\n" + rows)) +
         "\n";
}

std::string times_html(const matrix &all) {
  return all.times ? element("p", {{"class", "faint"}}, times_text(all)) + "\n" : "";
}

std::string body(const matrix &all) {
  auto html = element("h1", "What the power-on self-test finds") + "\n";
  html += element("p", "Fault space \u201c" + escape_markup(all.space) + "\u201d, " + std::to_string(all.runs.size()) +
                           " runs: " + escape_markup(all.description) +
                           ". Percentages of different fault spaces are not comparable.") +
          "\n";
  html += counts_table(all) + "\n" + element("p", sentence_counts(all)) + "\n" + times_html(all);
  if (const auto memories = draw_memories(all); !memories.empty())
    html += element("h2", "The lines of each memory") + "\n" +
            element("p",
                    "Each line of a memory has a box for a fault that holds it at 0 and one for 1; in a triangle "
                    "each pair of shorted lines has a half for either level that wins. Red is what goes unnoticed.") +
            legend() + element("div", {{"class", "memories"}}, memories) + "\n";
  return html + rates_html(all) + groups_html(all) + left_out_html(all) + matrix_html(all);
}

}  // namespace

std::string matrix_to_html(const matrix &all) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n" +
         element("title", "POST campaign: " + escape_markup(all.space)) + "\n" + element("style", style) +
         "\n</head>\n<body>\n" + body(all) + element("script", script) + "\n</body>\n</html>\n";
}

}  // namespace lab
