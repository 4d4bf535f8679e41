#include "lab/report/html.h"

#include "lab/base/markup.h"
#include "lab/base/text.h"
#include "lab/campaign/fault_facts.h"
#include "lab/report/drawing.h"
#include "lab/report/parts.h"
#include "lab/report/table.h"

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
.tag { font-weight: 600; } .again { user-select: all; color: var(--faint); }
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
.o-not-fired, .o-refused, .o-harmless { color: var(--other); fill: var(--other); }
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

markup code(std::string_view text) {
  return element("code", text);
}

// A text with `code` in it.
markup sentence(std::string_view text) {
  markup html;
  for (bool is_code = false; !text.empty(); is_code = !is_code) {
    const auto part = text.substr(0, text.find('`'));
    html += is_code ? code(part) : markup(part);
    text.remove_prefix(std::min(part.size() + 1, text.size()));
  }
  return html;
}

markup tag_of(outcome end) {
  const auto &text = text_of(end);
  return element("span", {{"class", "tag o-" + std::string(text.name)}},
                 std::string(text.mark) + " " + std::string(text.title));
}

markup tag_of(const run_result &run) {
  return element("span", {{"class", "tag " + style_class(run)}}, mark_of(run) + " " + title_of(run));
}

std::string board_of(const run_item &run) {
  return std::to_string(run.board.card) + " " + run.board.revision;
}

markup counts_table(const matrix &all) {
  const auto counts = count_outcomes(all.runs);
  markup html;
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

markup cell_if(bool wanted, const char *name, const markup &content) {
  return wanted ? element(name, content) : markup();
}

markup parts_table(const matrix &all) {
  const bool located = !located_sentence(all).empty();
  markup rows;
  for (const auto &part : parts_of(all))
    rows += element("tr", element("td", part.title) + element("td", share(part.right, part.runs)) +
                              element("td", share(part.unnoticed, part.runs)) +
                              cell_if(located, "td", counts_text(part.located))) +
            "\n";
  const auto head = element("tr", element("th", "Part") + element("th", "Reported by the right device") +
                                      element("th", "Unnoticed") + cell_if(located, "th", "post-locate"));
  return rows.empty() ? rows : element("table", {{"class", "counts"}}, head + "\n" + rows) + "\n";
}

markup list_of(const char *title, const std::vector<std::string> &items) {
  markup list;
  for (const auto &item : items)
    list += element("li", sentence(item)) + "\n";
  return items.empty() ? list : element("h2", title) + element("ul", list) + "\n";
}

markup legend() {
  markup html;
  for (const auto end : {outcome::found, outcome::blamed, outcome::missed, outcome::ended, outcome::hung,
                         outcome::damaged, outcome::not_fired, outcome::harmless, outcome::refused})
    html += tag_of(end);
  return element("p", {{"class", "legend"}}, html);
}

markup group_html(const reason_group &group) {
  markup list;
  for (const auto &pattern : group.patterns())
    list += element("li", code(pattern)) + "\n";
  return element("details", element("summary", tag_of(*group.runs.front()) + ", " + std::to_string(group.runs.size()) +
                                                   ": " + group.why()) +
                                element("ul", list)) +
         "\n";
}

markup groups_html(const matrix &all) {
  markup html;
  for (const auto &group : groups_of(all))
    html += group_html(group);
  if (html.empty()) return html;
  return element("h2", "What was not found by the right device, and why") + "\n" + html;
}

markup left_out_html(const matrix &all) {
  if (all.left_out.empty()) return {};
  markup list;
  for (const auto &[fault, reason] : all.left_out)
    list += element("li", code(fault) + ": " + reason);
  return element("h2", "Not run in this space") + element("ul", list) + "\n";
}

markup rates_html(const matrix &all) {
  if (all.repeats < 2) return {};
  markup rows;
  for (const auto &rate : rates(all)) {
    const auto range = rate.fired > 0 ? range_text(rate.found, rate.fired) : "";
    rows += element("tr", element("td", code(rate.what.fault)) + element("td", std::to_string(rate.fired)) +
                              element("td", share(rate.found, rate.fired)) + element("td", range) +
                              element("td", rate.first_found ? std::to_string(*rate.first_found) : "-") +
                              element("td", all.times && rate.seconds_to_found ? seconds_text(*rate.seconds_to_found)
                                                                               : "-")) +
            "\n";
  }
  const auto head = markup::raw(
      "<tr><th>Fault</th><th>Fired in</th><th>Found of these</th><th>95 % interval</th>"
      "<th>First found in run</th><th>after</th></tr>\n");
  return element("h2", "Detection of intermittent faults") + element("table", head + rows) + "\n";
}

markup strata_html(const matrix &all) {
  markup rows;
  for (const auto &one : strata_of(all))
    rows += element("tr", element("td", one.stratum) + element("td", one.title) +
                              element("td", share(one.count, one.of)) + element("td", range_text(one.count, one.of))) +
            "\n";
  const auto head = markup::raw("<tr><th>Stratum</th><th>Outcome</th><th>Runs</th><th>95 % interval</th></tr>\n");
  return rows.empty() ? rows : element("h2", "Rates") + element("table", head + rows) + "\n";
}

markup run_row(const run_result &run) {
  std::string reported;
  for (const auto &device : run.reported)
    reported += (reported.empty() ? "" : ", ") + device;
  markup told;
  if (!run.line.empty()) told += code(run.line);
  if (run.explained && !run.explained->text.empty()) told += element("div", run.explained->text);
  if (run.located) told += element("div", "post-locate: " + run.located->title() + ". " + run.located->text);
  for (const auto &text : {run.contents, run.reason})
    if (!text.empty()) told += element("div", {{"class", "faint"}}, text);
  told += element("code", {{"class", "again"}}, shell_line(run.what));
  const auto cell = [](std::string_view label, std::string_view content) {
    return content.empty() ? element("td", "") : element("td", {{"data-l", label}}, content);
  };
  return element(
             "tr",
             {{"data-outcome", title_of(run)}, {"data-kind", kind_of(run.what)}, {"data-board", board_of(run.what)}},
             element("td", tag_of(run)) + element("td", code(name_of(run.what))) + cell("board", board_of(run.what)) +
                 cell("mode", name_of(run.what.mode)) + cell("fired", fired_text(run)) + cell("verdict", run.verdict) +
                 cell("reported by", reported) + cell("exit", std::to_string(run.status)) + element("td", told)) +
         "\n";
}

markup matrix_html(const matrix &all) {
  markup rows("\n");
  for (const auto &run : all.runs)
    rows += run_row(run);
  const auto filters = markup::raw(
      "<form id=\"filters\" hidden onsubmit=\"return false\"><input type=\"search\" aria-label=\"words\" "
      "placeholder=\"words of a run\">"
      "<select name=\"outcome\" aria-label=\"outcome\"><option value=\"\">every outcome</option></select>"
      "<select name=\"kind\" aria-label=\"fault\"><option value=\"\">every fault</option></select>"
      "<select name=\"board\" aria-label=\"board\"><option value=\"\">every board</option></select>"
      "<output></output></form>\n");
  const auto head = markup::raw(
      "<thead><tr><th>Outcome</th><th>Fault</th><th>Board</th><th>Mode</th><th>Fired</th>"
      "<th>Verdict</th><th>Reported by</th><th>Exit</th>"
      "<th>First line, explanation, contents, reason, command</th></tr></thead>\n");
  return element("h2", "The matrix") + "\n" + filters +
         element("table", {{"class", "matrix"}}, head + element("tbody", {{"id", "runs"}}, rows)) + "\n";
}

// Where a log leaves several places, a measurement decides.
std::string located_note(const matrix &all) {
  const auto sentence = located_sentence(all);
  return sentence.empty()
             ? "Where an explanation leaves several places, post-locate measures; --locate adds its answers."
             : sentence;
}

markup body(const matrix &all, const std::vector<std::string> &changes) {
  auto html = element("h1", "What the power-on self-test finds") + "\n";
  html += element("p", "Fault space \u201c" + all.space + "\u201d, " + std::to_string(all.runs.size()) + " runs: " +
                           all.description + ". Percentages of different fault spaces are not comparable.") +
          "\n";
  html += element("p", sentence_counts(all)) + "\n" + element("p", located_note(all)) + "\n" + parts_table(all);
  html += list_of("Changed since the former matrix", changes);
  html += list_of("What a PASS does not cover", limits_of_a_pass());
  html += element("h2", "Outcomes") +
          element("p",
                  "Each run has one outcome. A fault that is reported by the right device and damages other contents "
                  "counts as damage here.") +
          counts_table(all) + "\n" + element("p", {{"class", "faint"}}, times_text(all));
  html += "\n" + element("p", {{"class", "faint"}}, all.origin.text(true)) + "\n";
  if (const auto memories = draw_memories(all); !memories.empty())
    html += element("h2", "The lines of each memory") + "\n" +
            element("p",
                    "Each line of a memory has a box for stuck at 0 and one for stuck at 1; in a triangle "
                    "each pair of shorted lines has a half for either level that wins. Red means unnoticed.") +
            legend() + element("div", {{"class", "memories"}}, memories) + "\n";
  return html + rates_html(all) + strata_html(all) + groups_html(all) + left_out_html(all) + matrix_html(all);
}

}  // namespace

std::string matrix_to_html(const matrix &all, const std::vector<std::string> &changes) {
  const auto start = markup::raw(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n");
  return (start + element("title", "POST campaign: " + all.space) + "\n" + element("style", markup::raw(style)) +
          markup::raw("\n</head>\n<body>\n") + body(all, changes) + element("script", markup::raw(script)) +
          markup::raw("\n</body>\n</html>\n"))
      .str();
}

}  // namespace lab
