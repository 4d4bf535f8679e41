// The access decoder beside objdump, on instructions of any bytes in both modes: of a move that the decoder knows,
// objdump must say the same, and a move that objdump sees and the decoder does not must be of a kind in the list
// `left`.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/board/random.h"
#include "sim/bus/decode.h"
#include "tools/peers/qemu.h"

namespace {

// An instruction has 15 bytes at most; behind it, bytes that are one each bring objdump back into step.
constexpr size_t slot = 32;
constexpr size_t longest = 15;

uint64_t random_state;
uint8_t any() {
  return static_cast<uint8_t>(sim::random_next(&random_state) >> 32U);
}
bool chance(unsigned in) {
  return any() % in == 0;
}

std::array<uint8_t, slot> make_code() {
  constexpr uint8_t prefixes[] = {0x66, 0x66, 0x67, 0x26, 0x2E, 0x36, 0x3E, 0x64, 0x65, 0xF0, 0xF2, 0xF3};
  constexpr uint8_t moves[] = {0x88, 0x89, 0x8A, 0x8B, 0xC6, 0xC7, 0xA0, 0xA1, 0xA2, 0xA3, 0x63, 0xB6, 0xB7,
                               0xBE, 0xBF, 0xE4, 0xE5, 0xE6, 0xE7, 0xEC, 0xED, 0xEE, 0xEF, 0x8C, 0x8E};
  std::array<uint8_t, slot> code;
  code.fill(0x90);
  for (size_t i = 0; i < longest; ++i)
    code[i] = any();
  size_t at = 0;
  while (chance(3) && at < 4)
    code[at++] = prefixes[any() % std::size(prefixes)];
  if (chance(3)) code[at++] = 0x40 | (any() & 0xFU);
  if (chance(40)) code[at++] = 0x66;
  const uint8_t opcode = chance(10) ? any() : moves[any() % std::size(moves)];
  if ((opcode & 0xF6U) == 0xB6 || chance(20)) code[at++] = 0x0F;
  code[at] = opcode;
  if ((opcode & 0xFEU) == 0xC6 && !chance(4)) code[at + 1] &= 0xC7;
  return code;
}

struct text_insn {
  size_t length = 0;
  std::vector<std::string> words;     // prefixes and the mnemonic
  std::vector<std::string> operands;  // in Intel's order
  [[nodiscard]] bool has(std::string_view word) const { return std::ranges::find(words, word) != words.end(); }
};

// "  20:\t66 89 4b fe \tmov    WORD PTR [rbx-0x2],cx        # 0x10"
text_insn parse_line(const std::string &line) {
  text_insn insn;
  const size_t bytes = line.find('\t') + 1;
  const size_t text = line.find('\t', bytes);
  insn.length = (line.substr(bytes, text - bytes).find_last_not_of(' ') + 2) / 3;
  if (text == std::string::npos) return insn;
  std::string rest = line.substr(text + 1);
  rest = rest.substr(0, rest.find('#'));
  rest.erase(rest.find_last_not_of(" \n") + 1);
  // Operands follow the first comma-free word that is neither prefix nor mnemonic: the last blank-separated group.
  size_t at = 0;
  while (at < rest.size()) {
    const size_t end = std::min(rest.find(' ', at), rest.size());
    const std::string word = rest.substr(at, end - at);
    const bool is_operand = word.find_first_of(",[]:") != std::string::npos || word.ends_with("WORD") || word == "BYTE";
    if (is_operand) break;
    insn.words.push_back(word);
    at = rest.find_first_not_of(' ', end);
    if (at == std::string::npos) at = rest.size();
  }
  rest = rest.substr(at);
  if (const size_t comma = rest.rfind(','); comma != std::string::npos) {
    insn.operands = {rest.substr(0, comma), rest.substr(comma + 1)};
  }
  return insn;
}

bool is_move(const text_insn &insn) {
  constexpr std::string_view names[] = {"mov", "movabs", "movzx", "movsx", "movsxd", "in", "out"};
  return !insn.words.empty() && insn.operands.size() == 2 &&
         std::ranges::find(names, insn.words.back()) != std::end(names);
}

bool is_memory(std::string_view operand) {
  return operand.find('[') != std::string_view::npos || operand.find("s:") != std::string_view::npos;
}

struct reg_name {
  unsigned index;
  unsigned width;
  bool high;
};

std::optional<reg_name> parse_register(std::string_view name) {
  constexpr std::string_view words[] = {"ax", "cx", "dx", "bx", "sp", "bp", "si", "di"};
  constexpr std::string_view low[] = {"al", "cl", "dl", "bl", "spl", "bpl", "sil", "dil"};
  constexpr std::string_view high[] = {"ah", "ch", "dh", "bh"};
  for (unsigned i = 0; i < 8; ++i) {
    if (name == words[i]) return reg_name{i, 16, false};
    if (name == low[i]) return reg_name{i, 8, false};
    if (i < 4 && name == high[i]) return reg_name{i, 8, true};
    if (name.size() == 3 && name.substr(1) == words[i] && name[0] == 'e') return reg_name{i, 32, false};
    if (name.size() == 3 && name.substr(1) == words[i] && name[0] == 'r') return reg_name{i, 64, false};
  }
  unsigned index = 0;
  if (name.size() < 2 || name[0] != 'r') return std::nullopt;
  const auto [end, error] = std::from_chars(&name[1], name.data() + name.size(), index);
  if (error != std::errc() || index < 8 || index > 15) return std::nullopt;
  const std::string_view tail(end, static_cast<size_t>(name.data() + name.size() - end));
  if (tail.empty()) return reg_name{index, 64, false};
  return reg_name{index, tail == "d" ? 32U : tail == "w" ? 16U : 8U, false};
}

uint64_t parse_number(std::string_view text) {
  return std::strtoull(std::string(text).c_str(), nullptr, 0);
}

// "DWORD PTR ds:[rbx+rcx*4-0x10]", "ds:0x1234"
// In *short_registers: whether it counts with 32 bits.
uint64_t evaluate(std::string_view operand, const sim::cpu_regs &regs, size_t length, bool *short_registers) {
  const size_t open = operand.find('[');
  if (open == std::string_view::npos) return parse_number(operand.substr(operand.find("s:") + 2));
  std::string_view rest = operand.substr(open + 1, operand.find(']') - open - 1);
  uint64_t sum = 0;
  while (!rest.empty()) {
    const bool minus = rest[0] == '-';
    if (minus || rest[0] == '+') rest.remove_prefix(1);
    const size_t end = std::min(rest.find_first_of("+-"), rest.size());
    const std::string_view term = rest.substr(0, end);
    rest.remove_prefix(end);
    const size_t star = std::min(term.find('*'), term.size());
    const std::string_view name = term.substr(0, star);
    const uint64_t factor = star < term.size() ? parse_number(term.substr(star + 1)) : 1;
    uint64_t value = 0;
    const auto reg = parse_register(name);
    *short_registers |= name == "eip" || name == "eiz" || (reg && reg->width == 32);
    if (name == "rip" || name == "eip")
      value = regs.ip + length;
    else if (name == "riz" || name == "eiz")
      value = 0;
    else if (reg)
      value = regs.gpr[reg->index];
    else
      value = parse_number(name);
    sum += minus ? 0 - value * factor : value * factor;
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
// clang-format off
enum kind { segment_base, locked, short_address, segment_register, odd_movsxd, kinds };
struct { const char *what; uint64_t seen; } left[kinds]{
    {"fs and gs, which have a base of their own", 0},
    {"lock and repeat prefixes, which compilers put before no such move", 0},
    {"16-bit addresses in 32-bit mode", 0},
    {"moves of segment registers", 0},
    {"movsxd of 16 bits, which sign-extends nothing", 0},
};
// clang-format on

std::optional<kind> why_left(const uint8_t *code, bool is_64, const text_insn &insn) {
  for (const uint8_t *at = code;; ++at) {
    const bool rex = is_64 && (*at & 0xF0U) == 0x40;
    const bool prefix = (*at & 0xE7U) == 0x26 || *at == 0x66 || *at == 0x67;
    if (*at == 0x64 || *at == 0x65) return segment_base;
    if (*at == 0xF0 || *at == 0xF2 || *at == 0xF3) return locked;
    if (*at == 0x67 && !is_64) return short_address;
    if (prefix || rex) continue;
    if (*at == 0x8C || *at == 0x8E) return segment_register;
    if (*at == 0x63 && insn.words.back() == "movsxd") return odd_movsxd;
    return std::nullopt;
  }
}

// "" or what differs.
std::string compare(const sim::insn &ours, const text_insn &text, const sim::cpu_regs &regs, bool is_64) {
  if (!is_move(text)) return "no move";
  if (ours.length != text.length) return "length";
  const std::string &name = text.words.back();
  if (ours.io != (name == "in" || name == "out")) return "port";
  const std::string &first = text.operands[0];
  const std::string &second = text.operands[1];
  const bool store = ours.io ? name == "out" : is_memory(first);
  if (store != ours.store) return "direction";
  const std::string &target = store ? first : second;
  const std::string &value = store ? second : first;
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
  explicit comparison(bool is_64) : m_is_64(is_64) {
    for (size_t i = 0; i < m_regs.gpr.size(); ++i)
      m_regs.gpr[i] = (i + 3) * 0x0102030405060708U >> (is_64 ? 0U : 32U);
  }
  void run(size_t count);
  uint64_t known = 0, others = 0, bad = 0;

 private:
  void take(size_t at, const std::array<uint8_t, slot> &code, const std::string &line);
  bool m_is_64;
  sim::cpu_regs m_regs;
};

void comparison::take(size_t at, const std::array<uint8_t, slot> &code, const std::string &line) {
  m_regs.ip = at;
  sim::insn ours;
  const text_insn text = parse_line(line);
  std::string why;
  if (sim::decode(code.data(), m_is_64 ? sim::word_size::bits64 : sim::word_size::bits32, m_regs, &ours)) {
    ++known;
    why = compare(ours, text, m_regs, m_is_64);
  } else {
    ++others;
    const bool plain = is_move(text) && (text.words.back() == "in" || text.words.back() == "out" ||
                                         is_memory(text.operands[0]) || is_memory(text.operands[1]));
    if (!plain) return;
    const auto kind = why_left(code.data(), m_is_64, text);
    if (kind) left[*kind].seen++;
    if (!kind) why = "not known";
  }
  if (!why.empty() && bad++ < 20) std::printf("%d bits, %s: %s", m_is_64 ? 64 : 32, why.c_str(), line.c_str());
}

void comparison::run(size_t count) {
  std::vector<std::array<uint8_t, slot>> codes(count);
  std::ranges::generate(codes, make_code);
  std::string path = std::filesystem::temp_directory_path() / "decode-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd < 0) give_up(path + ": cannot be written");
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char *>(codes.data()), static_cast<std::streamsize>(count * slot));
  const std::string command = "objdump -D -z -w -b binary -M intel --insn-width=15 -m i386" +
                              std::string(m_is_64 ? ":x86-64 '" : " '") + path + "'";
  FILE *const lines = popen(command.c_str(), "r");
  if (lines == nullptr) give_up("objdump cannot be run");
  char line[512];
  size_t next = 0;
  while (next < count && std::fgets(line, sizeof line, lines) != nullptr) {
    char *end = line;
    const size_t at = std::strtoul(line, &end, 16);
    if (end == line || *end != ':' || at != next * slot) continue;
    take(at, codes[next++], line);
  }
  // The rest, which a closed pipe would have it complain about.
  while (std::fgets(line, sizeof line, lines) != nullptr) {
  }
  (void)pclose(lines);
  std::filesystem::remove(path);
  if (next != count) give_up("objdump lost its step at instruction " + std::to_string(next));
}

}  // namespace

// peer_decode INSTRUCTIONS SEED
int main(int argc, char **argv) {
  if (argc != 3) give_up("usage: peer_decode INSTRUCTIONS SEED");
  random_state = std::strtoull(argv[2], nullptr, 0);
  const size_t each = std::strtoull(argv[1], nullptr, 0) / 2;
  comparison modes[] = {comparison(false), comparison(true)};
  for (comparison &mode : modes)
    mode.run(each);
  const auto of = [](uint64_t n) { return static_cast<unsigned long long>(n); };
  std::printf("decode: %llu instructions, %llu known, the same in objdump; %llu not known\n", of(2 * each),
              of(modes[0].known + modes[1].known), of(modes[0].others + modes[1].others));
  bool all_seen = true;
  for (const auto &l : left) {
    std::printf("  left: %s (seen %llu times)\n", l.what, of(l.seen));
    all_seen = all_seen && l.seen != 0;
  }
  const uint64_t bad = modes[0].bad + modes[1].bad;
  std::printf("decode: %llu differences that are not listed\n", of(bad));
  return bad == 0 && all_seen ? 0 : 1;
}
