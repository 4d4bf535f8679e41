// shards.h: a campaign in several parts, each run by itself, and put together again.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lab/campaign/matrix.h"
#include "lab/campaign/space.h"

namespace lab {

struct shard_number {
  size_t number = 1;  // from 1
  size_t of = 1;
};

// "K/N"; or "auto", as the first environment says of Bazel, GoogleTest, a Slurm array and GitLab.
// On failure returns nothing and says why in *error.
[[nodiscard]] std::optional<shard_number> parse_shard(std::string_view text, std::string *error);

// The positions of each shard's runs, in ascending order. The shards cost about the same; the same runs always give the
// same shards.
[[nodiscard]] std::vector<std::vector<size_t>> split(const std::vector<run_item> &runs, size_t shards);

// A text that is the same only for the same runs where the same decides their results. Its first half is of the runs
// only, so that merging can see whether it has them all, each at its place.
//   deciding  the bytes of each program, and the limits
[[nodiscard]] std::string plan_identity(const std::vector<run_item> &runs, const std::vector<std::string> &deciding);

// The whole matrix, with the date and the command of the first part. On failure returns nothing and says why in *error:
// parts of other campaigns, parts that cover a run twice, runs that are in none or are not of the plan.
//   parts  each with the name that it has in *error
[[nodiscard]] std::optional<matrix> merge(std::vector<std::pair<std::string, matrix>> parts, std::string *error);

}  // namespace lab
