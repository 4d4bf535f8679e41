// The access decoder beside objdump, on instructions of any bytes in both modes: of a move that the decoder knows,
// objdump must say the same, and a move that objdump sees and the decoder does not must be of a kind in the list
// `left`.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <optional>
#include <regex>
#include <string_view>

#include "sim/bus/decode.h"
#include "tools/peers/compare.h"

namespace {

// An instruction has 15 bytes at most; after it, one-byte instructions bring objdump back into step.
constexpr size_t slot = 32;
constexpr size_t longest = 15;

random_numbers any(0);
bool one_in(unsigned count) {
  return any.byte() % count == 0;
}

std::array<uint8_t, slot> make_code() {
  constexpr uint8_t prefixes[] = {0x66, 0x66, 0x67, 0x26, 0x2E, 0x36, 0x3E, 0x64, 0x65, 0xF0, 0xF2, 0xF3};
  constexpr uint8_t moves[] = {0x88, 0x89, 0x8A, 0x8B, 0xC6, 0xC7, 0xA0, 0xA1, 0xA2, 0xA3, 0x63, 0xB6, 0xB7,
                               0xBE, 0xBF, 0xE4, 0xE5, 0xE6, 0xE7, 0xEC, 0xED, 0xEE, 0xEF, 0x8C, 0x8E};
  std::array<uint8_t, slot> code;
  code.fill(0x90);
  for (size_t i = 0; i < longest; ++i)
    code[i] = any.byte();
  size_t at = 0;
  while (one_in(3) && at < 4)
    code[at++] = prefixes[any.byte() % std::size(prefixes)];
  if (one_in(3)) code[at++] = 0x40 | (any.byte() & 0xFU);
  if (one_in(40)) code[at++] = 0x66;
  const uint8_t opcode = one_in(10) ? any.byte() : moves[any.byte() % std::size(moves)];
  if ((opcode & 0xF6U) == 0xB6 || one_in(20)) code[at++] = 0x0F;
  code[at] = opcode;
  if ((opcode & 0xFEU) == 0xC6 && !one_in(4)) code[at + 1] &= 0xC7;
  return code;
}

struct text_insn {
  size_t length = 0;
  std::vector<std::string> words;  // prefixes and the mnemonic
  std::string first, second;       // operands in Intel's order, if there are two
  [[nodiscard]] bool has(std::string_view word) const { return std::ranges::find(words, word) != words.end(); }
  [[nodiscard]] std::string name() const { return words.empty() ? "" : words.back(); }
};

const std::regex line_form("[^\t]*\t([0-9a-f ]*[0-9a-f]) *(?:\t([^#\n]*[^#\n ]))?[^]*");
const std::regex two_operands("(.*?) +((?:[A-Z]+ PTR )?[^ ,]+),((?:[A-Z]+ PTR )?[^ ,]+)");
const std::regex term_form("([-+]?)([a-z0-9]+)(?:[*]([0-9]))?");

// "  20:\t66 89 4b fe \tmov    WORD PTR [rbx-0x2],cx        # 0x10"
text_insn parse_line(const std::string &line) {
  text_insn insn;
  std::smatch parts, text;
  if (!std::regex_match(line, parts, line_form)) give_up("objdump says '" + line + "'");
  insn.length = (static_cast<size_t>(parts.length(1)) + 1) / 3;
  const std::string said = parts[2];
  if (!std::regex_match(said, text, two_operands)) return insn;
  std::istringstream words(text[1]);
  for (std::string word; words >> word;)
    insn.words.push_back(word);
  insn.first = text[2];
  insn.second = text[3];
  return insn;
}

bool is_move(const text_insn &insn) {
  constexpr std::string_view names[] = {"mov", "movabs", "movzx", "movsx", "movsxd", "in", "out"};
  return std::ranges::find(names, insn.name()) != std::end(names);
}

bool is_memory(std::string_view operand) {
  return operand.find('[') != std::string_view::npos || operand.find("s:") != std::string_view::npos;
}

struct reg_name {
  unsigned index;
  unsigned width;
  bool high = false;
};

const std::map<std::string, reg_name, std::less<>> registers = [] {
  constexpr const char *words[] = {"ax", "cx", "dx", "bx", "sp", "bp", "si", "di"};
  constexpr const char *low[] = {"al", "cl", "dl", "bl", "spl", "bpl", "sil", "dil"};
  constexpr const char *high[] = {"ah", "ch", "dh", "bh"};
  std::map<std::string, reg_name, std::less<>> all;
  for (unsigned i = 0; i < 8; ++i) {
    all[low[i]] = {i, 8};
    all[words[i]] = {i, 16};
    all["e" + std::string(words[i])] = {i, 32};
    all["r" + std::string(words[i])] = {i, 64};
    if (i < 4) all[high[i]] = {i, 8, true};
  }
  for (unsigned i = 8; i < 16; ++i)
    for (const auto &[suffix, width] : {std::pair{"b", 8U}, {"w", 16U}, {"d", 32U}, {"", 64U}})
      all["r" + std::to_string(i) + suffix] = {i, width};
  return all;
}();

std::optional<reg_name> parse_register(std::string_view name) {
  const auto found = registers.find(name);
  return found == registers.end() ? std::nullopt : std::optional(found->second);
}

uint64_t parse_number(const std::string &text) {
  return std::strtoull(text.c_str(), nullptr, 0);
}

// "DWORD PTR ds:[rbx+rcx*4-0x10]", "ds:0x1234"
// In *short_registers: whether it counts with 32 bits.
uint64_t evaluate(const std::string &operand, const sim::cpu_regs &regs, size_t length, bool *short_registers) {
  const size_t open = operand.find('[');
  if (open == std::string::npos) return parse_number(operand.substr(operand.find("s:") + 2));
  const std::string sum_text = operand.substr(open + 1, operand.find(']') - open - 1);
  uint64_t sum = 0;
  for (std::sregex_iterator term(sum_text.begin(), sum_text.end(), term_form), end; term != end; ++term) {
    const std::string name = (*term)[2];
    const auto reg = parse_register(name);
    *short_registers |= name == "eip" || name == "eiz" || (reg && reg->width == 32);
    uint64_t value = 0;
    if (name == "rip" || name == "eip")
      value = regs.ip + length;
    else if (reg)
      value = regs.gpr[reg->index];
    else if (name != "riz" && name != "eiz")
      value = parse_number(name);
    if ((*term)[3].matched) value *= parse_number((*term)[3]);
    sum += (*term)[1] == "-" ? 0 - value : value;
  }
  return sum;
}

unsigned memory_width(std::string_view operand, std::string_view other) {
  constexpr std::pair<std::string_view, unsigned> names[] = {{"QWORD", 64}, {"DWORD", 32}, {"WORD", 16}, {"BYTE", 8}};
  for (const auto &[name, width] : names)
    if (operand.find(name) != std::string_view::npos) return width;
  const auto reg = parse_register(other);
  return reg ? reg->width : 0;
}

// What the decoder does not take, on purpose.
enum kind { segment_base, locked, short_address, segment_register, odd_movsxd, kinds };
listed left[kinds]{
    {"fs and gs", "they have a base of their own"},
    {"lock and repeat prefixes", "compilers put them before no such move"},
    {"16-bit addresses in 32-bit mode", "compilers make none"},
    {"moves of segment registers", "no access to a device is one"},
    {"movsxd of 16 bits", "it sign-extends nothing"},
};

std::optional<kind> why_left(const uint8_t *code, bool is_64, const text_insn &insn) {
  for (const uint8_t *at = code;; ++at) {
    const bool rex = is_64 && (*at & 0xF0U) == 0x40;
    const bool prefix = (*at & 0xE7U) == 0x26 || *at == 0x66 || *at == 0x67;
    if (*at == 0x64 || *at == 0x65) return segment_base;
    if (*at == 0xF0 || *at == 0xF2 || *at == 0xF3) return locked;
    if (*at == 0x67 && !is_64) return short_address;
    if (prefix || rex) continue;
    if (*at == 0x8C || *at == 0x8E) return segment_register;
    if (*at == 0x63 && insn.name() == "movsxd") return odd_movsxd;
    return std::nullopt;
  }
}

// "" or what differs.
std::string compare(const sim::insn &ours, const text_insn &text, const sim::cpu_regs &regs, bool is_64) {
  if (!is_move(text)) return "no move";
  if (ours.length != text.length) return "length";
  const std::string name = text.name();
  if (ours.io != (name == "in" || name == "out")) return "port";
  const bool store = ours.io ? name == "out" : is_memory(text.first);
  if (store != ours.store) return "direction";
  const std::string &target = store ? text.first : text.second;
  const std::string &value = store ? text.second : text.first;
  const auto reg = parse_register(value);
  if (ours.io) {
    const uint64_t port = target == "dx" ? regs.gpr[2] & 0xFFFFU : parse_number(target);
    if (port != ours.address) return "port's number";
    if (!reg || reg->index != 0 || reg->width != ours.width) return "port's width";
    return "";
  }
  if (!is_memory(target)) return "no memory";
  if (memory_width(target, value) != ours.width) return "width";
  // An address without registers has 32 bits where the prefix says so.
  bool cut = !is_64 || text.has("addr32");
  uint64_t address = evaluate(target, regs, ours.length, &cut);
  if (cut) address &= UINT32_MAX;
  if (address != ours.address) return "address";
  if (!reg) {
    const uint64_t mask = ours.width == 64 ? ~uint64_t{0} : (uint64_t{1} << ours.width) - 1;
    return (parse_number(value) & mask) == ours.data ? "" : "constant";
  }
  if (reg->index != ours.reg || reg->high != ours.high) return "register";
  if (reg->width != (store ? ours.width : ours.reg_width)) return "register's width";
  if (!store && ours.sign != (name == "movsx" || name == "movsxd")) return "sign";
  return "";
}

class comparison {
 public:
  void run(bool is_64, size_t count) {
    for (size_t i = 0; i < m_regs.gpr.size(); ++i)
      m_regs.gpr[i] = (i + 3) * 0x0102030405060708U >> (is_64 ? 0U : 32U);
    std::vector<uint8_t> codes;
    for (size_t i = 0; i < count; ++i)
      std::ranges::copy(make_code(), std::back_inserter(codes));
    const std::string command = "objdump -D -z -w -b binary -M intel --insn-width=15 -m i386" +
                                std::string(is_64 ? ":x86-64 " : " ") + make_file(codes);
    FILE *const lines = popen(command.c_str(), "r");
    if (lines == nullptr) give_up("objdump cannot be run");
    char line[512];
    size_t next = 0;
    // To the end, or it would complain about a closed pipe.
    while (std::fgets(line, sizeof line, lines) != nullptr) {
      char *end = line;
      m_regs.ip = std::strtoul(line, &end, 16);
      if (next == count || end == line || *end != ':' || m_regs.ip != next * slot) continue;
      take(is_64, &codes[slot * next++], line);
    }
    (void)pclose(lines);
    if (next != count) give_up("objdump lost its step at instruction " + std::to_string(next));
  }

  [[nodiscard]] int report() const {
    std::printf("decode: %" PRIu64 " instructions, %" PRIu64 " known, the same in objdump; %" PRIu64 " not known\n",
                m_known + m_others, m_known, m_others);
    return m_found.report("decode");
  }

 private:
  void take(bool is_64, const uint8_t *code, const std::string &line) {
    sim::insn ours;
    const text_insn text = parse_line(line);
    std::string why;
    if (sim::decode(code, is_64 ? sim::word_size::bits64 : sim::word_size::bits32, m_regs, &ours)) {
      ++m_known;
      why = compare(ours, text, m_regs, is_64);
    } else {
      ++m_others;
      const bool port = text.name() == "in" || text.name() == "out";
      if (!is_move(text) || !(port || is_memory(text.first) || is_memory(text.second))) return;
      const auto kind = why_left(code, is_64, text);
      if (kind) m_found.see(*kind);
      if (!kind) why = "not known";
    }
    if (!why.empty()) m_found.differ("%d bits, %s: %s", is_64 ? 64 : 32, why.c_str(), line.c_str());
  }

  findings m_found{left};
  sim::cpu_regs m_regs;
  uint64_t m_known = 0, m_others = 0;
};

}  // namespace

// peer_decode INSTRUCTIONS SEED
int main(int argc, char **argv) {
  if (argc != 3) give_up("usage: peer_decode INSTRUCTIONS SEED");
  any = random_numbers(std::strtoull(argv[2], nullptr, 0));
  const size_t each = std::strtoull(argv[1], nullptr, 0) / 2;
  comparison both;
  for (const bool is_64 : {false, true})
    both.run(is_64, each);
  return both.report();
}
