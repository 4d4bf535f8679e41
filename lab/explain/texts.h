// texts.h: what is known of the program's fixed texts, as tables: what each means, which faults cause it, what
// to do. A text that no row knows is not known.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

// The values of a pattern's fields in a line.
using text_fields = std::map<std::string, std::string, std::less<>>;

// Finds a pattern anywhere in a line. "{name}" is a field: the text up to the next fixed text, at the pattern's end
// up to the next blank, comma or end.
[[nodiscard]] std::optional<text_fields> find_text(std::string_view pattern, std::string_view line);

// A field that is a whole number of this base, or nothing.
[[nodiscard]] std::optional<uint32_t> number_of(const text_fields &fields, std::string_view name, int base);

// Puts fields into a text: "{name}" as it is, "{name:bar}" a base address register by its hexadecimal offset.
[[nodiscard]] std::string fill_text(std::string_view text, const text_fields &fields);

// What must hold beside the text.
enum class text_condition : uint8_t {
  none,
  also,            // another line of the same device holds `also`
  one_port,        // of the ports that every card tests only one printed the text,
  all_ports,       // or all did
  unread,          // neither SPROM was read, nor their EEPROM at the start
  perhaps_unread,  // the same as far as the log shows, which stops before both were tried
  stopped,         // the run stopped there, and no line shows what ended it
};

struct text_row {
  std::string_view row;   // key of the program's row, "startup", or "" for any place
  std::string_view text;  // pattern, "" where the device printed nothing that is known
  text_condition when;
  std::string_view also;  // pattern
  std::string_view part;  // what is broken, "" for a line that only follows from another
  std::string_view what;  // how
  // Faults of the table with "; " between them. After '?', what is printed depends on something else, too; after '~',
  // only a fault that comes and goes prints it.
  std::string_view causes;
  std::string_view next;  // what to do
};
// First match wins.
[[nodiscard]] std::span<const text_row> text_rows();

// What decides between candidates of two kinds. The kinds may hold wildcards.
struct measure_row {
  std::string_view one;
  std::string_view other;
  std::string_view text;
};
[[nodiscard]] std::span<const measure_row> measure_rows();

// What to do about a kind of candidate.
struct advice_row {
  std::string_view kind;
  std::string_view text;
};
[[nodiscard]] std::span<const advice_row> advice_rows();

// What a row's failure hides: by the row's key.
[[nodiscard]] std::string_view unseen_after(std::string_view row);

}  // namespace lab
