# Tables of bench_timer's medians, one for each number of timers: a row a measurement, a column a contender. In a cell the
# median, its spread, and how many times the timer service's it is; bold where it is cheaper than the timer service.
def number: if . >= 100 then round | tostring | [while(length > 0; .[:-3]) | .[-3:]] | reverse | join(",")
  else (10 * . | round / 10 | tostring) end;
def times: if . < 0.01 then "<0.01×" elif . < 10 then "\(100 * . | round / 100)×" else "\(round)×" end;
def rows: ["start", "stop", "release", "start + stop + release", "restart", "tick", "mixed tick",
  "mixed tick, one period", "stop in a crowd", "bytes", "bytes after it"];
# Runs are at random: the file has the contenders in the order of their last one.
def contenders: ["timer service", "libevent", "libevent, common timeout", "libuv", "std::multimap"];
def by_contender: map({key: .contender, value: .}) | from_entries | [.[contenders[]]];
def value(row): if row == "start + stop + release" then .start + .stop + .release else .[row] end;

[.benchmarks[] | select(.run_name | startswith("now") | not) |
  . + (.run_name | capture("^(?<count>[0-9]+)/(?<contender>[^/]*)"))] as $races |
(if [$races[] | select(.aggregate_name == "median")] | group_by(.count) | all(map(.expired) | unique | length == 1)
  then empty else error("the contenders disagree on what expired") end),
([$races[].count] | unique_by(tonumber)[] as $count |
  ([$races[] | select(.count == $count and .aggregate_name == "median")] | by_contender) as $medians |
  ([$races[] | select(.count == $count and .aggregate_name == "cv")] | by_contender) as $spreads |
  "\n### \($count | tonumber | number) timers\n",
  (["", $medians[].contender] | "|" + (map(" \(. ) |") | add)),
  "|---|" + ([$medians[] | "--:|"] | add),
  (rows[] as $row | ($medians[0] | value($row)) as $own |
    "| \($row) |" + ([range($medians | length) as $i | ($medians[$i] | value($row)) as $value |
      ($value | number) + (if $spreads[$i][$row] != null and $value >= 0.05 then
        " ±\($spreads[$i][$row] * 100 | round) %" else "" end) +
      (if $i == 0 or $row == "release" then "" else " (\($value / $own | times))" end) |
      if $i > 0 and $row != "release" and $value < $own then " **\(.)** |" else " \(.) |" end] | add))),
([.benchmarks[] | select(.aggregate_name == "median" and (.run_name | startswith("now"))) |
  {key: .run_name, value: .cpu_time}] | from_entries |
  "\nIn polled mode a start takes \(."now/polled mode" - ."now/tick mode" | number) ns more: it reads the time-stamp counter and divides twice.")
