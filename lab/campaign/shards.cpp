#include "lab/campaign/shards.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <numeric>
#include <queue>

#include "lab/base/files.h"
#include "lab/base/text.h"

namespace lab {
namespace {

// How a system numbers its parallel jobs.
struct shard_environment {
  const char *number;
  const char *of;
  const char *first;  // variable with the lowest number; null where that is `base`
  const char *step;   // between two numbers; null where that is 1
  uint64_t base;
  const char *status_file;  // names a file that shows that sharding is understood
};
// clang-format off
constexpr std::array environments{std::to_array<shard_environment>({
    {"TEST_SHARD_INDEX",    "TEST_TOTAL_SHARDS",      nullptr,                nullptr,                 0, "TEST_SHARD_STATUS_FILE"},  // Bazel
    {"GTEST_SHARD_INDEX",   "GTEST_TOTAL_SHARDS",     nullptr,                nullptr,                 0, "GTEST_SHARD_STATUS_FILE"},
    {"SLURM_ARRAY_TASK_ID", "SLURM_ARRAY_TASK_COUNT", "SLURM_ARRAY_TASK_MIN", "SLURM_ARRAY_TASK_STEP", 1, nullptr},
    {"CI_NODE_INDEX",       "CI_NODE_TOTAL",          nullptr,                nullptr,                 1, nullptr},                   // GitLab
})};
// clang-format on

// A number in decimal, also with zeros before it: who counts 08, 09, 10 does not mean octal.
std::optional<uint64_t> decimal(std::string_view text) {
  const auto number = take_number<uint64_t>(&text);
  return text.empty() ? number : std::nullopt;
}

// Its number; `usual` where there is no such variable, nothing where it is no number.
std::optional<uint64_t> variable(const char *name, std::optional<uint64_t> usual = std::nullopt) {
  const char *const value = name == nullptr ? nullptr : std::getenv(name);
  return value == nullptr ? usual : decimal(value);
}

// The turn of a number, from 1.
std::optional<uint64_t> turn_of(std::optional<uint64_t> number, std::optional<uint64_t> first,
                                std::optional<uint64_t> step) {
  const bool fits = number && first && step && *step > 0 && *number >= *first && (*number - *first) % *step == 0;
  return fits ? std::optional((*number - *first) / *step + 1) : std::nullopt;
}

std::optional<shard_number> made(std::optional<uint64_t> number, std::optional<uint64_t> of) {
  if (!number || !of || *number < 1 || *number > *of || *of > 1'000'000) return std::nullopt;
  return shard_number{static_cast<size_t>(*number), static_cast<size_t>(*of)};
}

std::optional<shard_number> shard_of_environment(std::string *error) {
  for (const auto &one : environments) {
    if (std::getenv(one.number) == nullptr) continue;
    const auto turn = turn_of(variable(one.number), variable(one.first, one.base), variable(one.step, 1));
    const auto shard = made(turn, variable(one.of));
    if (!shard) *error = std::string("--shard auto: bad values of ") + one.number + " and " + one.of;
    const char *const file = one.status_file == nullptr ? nullptr : std::getenv(one.status_file);
    if (shard && file != nullptr) *error = write_whole(file, "");
    return shard && error->empty() ? shard : std::nullopt;
  }
  *error = "--shard auto: the environment of Bazel, GoogleTest, a Slurm array or GitLab is not there";
  return std::nullopt;
}

// The first half of a plan's identity.
void add_item(const run_item &run, text_hash *hash) {
  hash->add(run.key());
  hash->add(run.stratum);
}

bool is_same_program(const provenance &a, const provenance &b) {
  return a.tool == b.tool && a.program == b.program && a.word_bits == b.word_bits;
}

// Why two parts do not belong together, "" if they do.
std::string conflict(const matrix &a, const matrix &b) {
  if (!b.part) return "no shard, but a whole matrix";
  if (!is_same_program(a.origin, b.origin)) return "made by or of another program";
  const bool same_space = a.space == b.space && a.description == b.description && a.repeats == b.repeats;
  if (!same_space || a.left_out != b.left_out) return "another fault space";
  if (a.part->of != b.part->of || a.part->all_runs != b.part->all_runs) return "a shard of another number of shards";
  return a.part->plan == b.part->plan ? "" : "made with other programs, or of other runs";
}

// The numbers from 1 to `all` that are not in the sorted list, as "3, 7..9".
std::string gaps_text(const std::vector<size_t> &numbers, size_t all) {
  std::string text;
  size_t next = 1;
  const auto add_gap = [&](size_t end) {
    if (next < end) text += (text.empty() ? "" : ", ") + std::to_string(next);
    if (next + 1 < end) text += (next + 2 < end ? ".." : ", ") + std::to_string(end - 1);
    next = end + 1;
  };
  for (const auto number : numbers)
    if (number >= next) add_gap(number);
  add_gap(all + 1);
  return text;
}

// When and where the parts ran is not known: how many runs there were at a time has no answer.
void add_times(const campaign_times &times, campaign_times *sum) {
  sum->elapsed = std::max(sum->elapsed, times.elapsed);
  sum->run_cpu += times.run_cpu;
  sum->other_cpu += times.other_cpu;
}

// The runs of the parts by their positions in the whole plan. A part may name any numbers of runs and shards: only
// what it has takes memory.
class whole_plan {
 public:
  explicit whole_plan(const shard &first) : m_all_runs(first.all_runs), m_all_shards(first.of) {}

  // Returns "" or what is covered twice.
  std::string add(const std::string &name, const matrix &part) {
    for (size_t i = 0; i < part.runs.size(); ++i) {
      const auto [before, is_new] = m_runs.try_emplace(part.part->positions[i], name, part.runs[i]);
      if (!is_new) return part.runs[i].what.key() + " is in " + before->second.first + " and in " + name;
    }
    const auto number = part.part->number;
    const auto [before, is_new] = m_shards.try_emplace(number, name);
    return is_new ? "" : "shard " + std::to_string(number) + " is in " + before->second + " and in " + name;
  }

  // Returns "" or what is in no part.
  [[nodiscard]] std::string missing() {
    std::vector<size_t> runs;
    for (const auto &[position, run] : m_runs)
      runs.push_back(position + 1);
    const auto lost_runs = gaps_text(runs, m_all_runs);
    if (lost_runs.empty()) return "";
    std::vector<size_t> shards;
    for (const auto &[number, name] : m_shards)
      shards.push_back(number);
    const auto lost = gaps_text(shards, m_all_shards);
    return "missing of " + std::to_string(m_all_runs) + " runs, by their line in --list: " + lost_runs +
           (lost.empty() ? "" : "; no matrix was given of shard " + lost + " of " + std::to_string(m_all_shards));
  }

  // Returns "" if they are the runs that the plan was made of, each at its place.
  [[nodiscard]] std::string altered(std::string_view identity) const {
    text_hash hash;
    for (const auto &[position, run] : m_runs)
      add_item(run.second.what, &hash);
    if (identity.starts_with(hash.text())) return "";
    std::string text = "the runs are not those of the plan: a fault, its board, mode, turn or position was changed";
    std::map<std::string, size_t> seen;
    for (const auto &[position, run] : m_runs) {
      const auto [before, is_new] = seen.try_emplace(run.second.what.key(), position);
      if (!is_new)
        return text + "; twice: " + before->first + ", as run " + std::to_string(before->second + 1) + " and run " +
               std::to_string(position + 1);
    }
    return text;
  }

  [[nodiscard]] std::vector<run_result> take_runs() {
    std::vector<run_result> runs;
    for (auto &[position, run] : m_runs)
      runs.push_back(std::move(run.second));
    return runs;
  }

 private:
  size_t m_all_runs;
  size_t m_all_shards;
  std::map<size_t, std::pair<std::string, run_result>> m_runs;  // with the part's name
  std::map<size_t, std::string> m_shards;                       // by number, the same
};

}  // namespace

std::optional<shard_number> parse_shard(std::string_view text, std::string *error) {
  if (text == "auto") return shard_of_environment(error);
  const auto slash = std::min(text.find('/'), text.size());
  const auto shard = made(decimal(text.substr(0, slash)), decimal(text.substr(std::min(slash + 1, text.size()))));
  if (!shard) *error = "--shard: '" + std::string(text) + "' is neither K/N, with K from 1 to N, nor auto";
  return shard;
}

// The dearest runs first, each to the shard that has cost least so far.
std::vector<std::vector<size_t>> split(const std::vector<run_item> &runs, size_t shards) {
  std::vector<size_t> order(runs.size());
  std::iota(order.begin(), order.end(), size_t{0});
  const auto cost = [&](size_t i) { return expected_seconds(runs[i].mode); };
  std::ranges::stable_sort(order, std::greater{}, cost);
  using load = std::pair<double, size_t>;
  std::priority_queue<load, std::vector<load>, std::greater<>> least;
  for (size_t i = 0; i < shards; ++i)
    least.emplace(0.0, i);
  std::vector<std::vector<size_t>> parts(shards);
  for (const auto run : order) {
    const auto [sum, shard] = least.top();
    least.pop();
    parts[shard].push_back(run);
    least.emplace(sum + cost(run), shard);
  }
  for (auto &part : parts)
    std::ranges::sort(part);
  return parts;
}

std::string plan_identity(const std::vector<run_item> &runs, const std::vector<std::string> &deciding) {
  text_hash items;
  for (const auto &run : runs)
    add_item(run, &items);
  text_hash rest;
  for (const auto &bytes : deciding)
    rest.add(bytes);
  return items.text() + "-" + rest.text();
}

std::optional<matrix> merge(std::vector<std::pair<std::string, matrix>> parts, std::string *error) {
  auto &first = parts.front().second;
  if (!first.part) {
    *error = parts.front().first + ": no shard, but a whole matrix";
    return std::nullopt;
  }
  whole_plan plan(*first.part);
  campaign_times times;
  bool timed = true;
  for (const auto &[name, part] : parts) {
    const auto wrong = conflict(first, part);
    *error = wrong.empty() ? plan.add(name, part) : name + ": " + wrong;
    if (!error->empty()) return std::nullopt;
    timed &= part.times.has_value();
    if (part.times) add_times(*part.times, &times);
    if (part.origin.machine != first.origin.machine) first.origin.machine = "several";
  }
  *error = plan.missing();
  if (error->empty()) *error = plan.altered(first.part->plan);
  for (const auto &[name, part] : parts)
    if (!part.part->is_intact)
      *error = name + ": its runs are not those that were written" + (error->empty() ? "" : "; " + *error);
  if (!error->empty()) return std::nullopt;
  if (parts.size() == 1) times.jobs = first.times ? first.times->jobs : 0;
  auto whole = std::move(first);
  whole.part.reset();
  whole.runs = plan.take_runs();
  whole.times.reset();
  if (timed) whole.times = times;
  return whole;
}

}  // namespace lab
