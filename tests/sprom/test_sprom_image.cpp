// Byte order and checks of SPROM images.
#include "platform/mfgd/uspace/utils/sprom/sprom_conv.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"
#include "sprom/image/plan.h"
#include "tests/support/run.h"
#include "tests/support/sprom_image.h"

namespace {

constexpr uint32_t image_kinds[]{SPROM_TYPE_SUP, SPROM_TYPE_BP, SPROM_TYPE_LC, SPROM_TYPE_PS, SPROM_TYPE_FAN};
constexpr uint32_t no_kinds[]{0, SPROM_TYPE_DIMM, 7, 0x80000001, 0xFFFFFFFF};

sprom_t descriptor(uint32_t type) {
  return {nullptr, nullptr, nullptr, "", type, 0, nullptr};
}

bytes counting(size_t size, uint8_t from) {
  bytes image(size);
  std::iota(image.begin(), image.end(), from);
  return image;
}

// The result and the lines of a check.
template <typename F>
std::string told(F f) {
  testing::internal::CaptureStdout();
  const int32_t result = f();
  return testing::internal::GetCapturedStdout() + std::to_string(result);
}
std::string verify(const uint8_t *image, uint32_t type) {
  const sprom_t sprom = descriptor(type);
  return told([&] { return sprom_verify(&sprom, image); });
}
std::string verify(const bytes &image, uint32_t type) {
  return verify(image.data(), type);
}

// The blanks put Found in the same column in all three lines.
constexpr const char *signature = "signature mismatch. ";
constexpr const char *length = "length mismatch.    ";
constexpr const char *checksum = "checksum mismatch.  ";
std::string line(const char *label, const char *what, unsigned found, unsigned expected) {
  return format("%s block %sFound 0x%04x, expected 0x%04x.\n", label, what, found, expected);
}

unsigned half(const bytes &image, size_t at) {
  return image[at] + 256U * image[at + 1];
}

TEST(sprom_conv, exchanges_the_bytes_of_every_number_and_no_others) {
  const bytes device = counting(600, 1);
  for (const auto convert : {sprom_ntoh, sprom_hton}) {
    const auto expect = [&](uint32_t type, int32_t result, const bytes &host) {
      SCOPED_TRACE(type);
      const sprom_t sprom = descriptor(type);
      bytes image = device;
      EXPECT_EQ(convert(&sprom, image.data()), result);
      EXPECT_EQ(image, host);
      EXPECT_EQ(convert(&sprom, image.data()), result);
      EXPECT_EQ(image, device);
      EXPECT_EQ(convert(&sprom, nullptr), result);
    };
    for (const uint32_t type : image_kinds)
      expect(type, 0, host_image(device, type));
    for (const uint32_t type : no_kinds)
      expect(type, -22, device);
  }
}

// As it is, and with the checksum put right.
TEST(sprom_verify, reports_every_changed_byte_of_every_block) {
  for (const uint32_t type : image_kinds) {
    const bytes good = host_image(type);
    EXPECT_EQ(verify(good, type), "0");
    for (const test_block &block : test_blocks.at(type)) {
      for (size_t changed = 0; changed < block.length; ++changed) {
        SCOPED_TRACE(std::string{block.label} + " byte " + std::to_string(changed));
        bytes bad = good, sealed = device_image(type);
        bad[block.offset + changed] ^= 0x81;
        std::string lines;
        if (changed < 2) lines += line(block.label, signature, half(bad, block.offset), block.signature);
        if (changed == 3) lines += line(block.label, length, bad[block.offset + 3], block.length);
        sealed[block.offset + (changed < 2 ? 1 - changed : changed)] ^= 0x81;
        seal_image(&sealed, type);
        EXPECT_EQ(verify(host_image(sealed, type), type), lines.empty() ? "0" : lines + "-22");
        unsigned sum = half(good, block.offset + 4);
        if (changed != 4 && changed != 5) sum += bad[block.offset + changed] - unsigned{good[block.offset + changed]};
        lines += line(block.label, checksum, half(bad, block.offset + 4), sum & 0xFFFF);
        EXPECT_EQ(verify(bad, type), lines + "-22");
      }
    }
  }
}

TEST(sprom_verify, reports_every_mismatch_of_an_image) {
  bytes device = device_image(SPROM_TYPE_BP);
  for (const auto &[at, value] : {std::pair{0, 0x12}, {1, 0x34}, {3, 0}, {458, 17}})
    device[static_cast<size_t>(at)] = static_cast<uint8_t>(value);
  seal_image(&device, SPROM_TYPE_BP);
  EXPECT_EQ(verify(host_image(device, SPROM_TYPE_BP), SPROM_TYPE_BP),
            line("Backplane Common Header", signature, 0x1234, 0xABAB) +
                line("Backplane Common Header", length, 256, 160) + line("Backplane License", length, 17, 16) + "-22");
  const bytes good = host_image(SPROM_TYPE_PS);
  EXPECT_EQ(told([&] { return sprom_verify_block(&good[160], "PSU", 0xAB01, 36); }), "0");
  EXPECT_EQ(told([&] { return sprom_verify_block(&good[160], "PSU", 0xAB02, 36); }),
            line("PSU", signature, 0xAB01, 0xAB02) + "-22");
}

TEST(sprom_verify_DeathTest, asserts_an_image_and_has_no_verdict_on_kinds_without_layout) {
  constexpr const char *names[]{"", "sup", "bp", "lc", "ps", "", "fan"};
  for (const uint32_t type : image_kinds) {
    const std::string name = names[type];
    EXPECT_DEATH((void)verify(nullptr, type),
                 HasSubstr("sprom_verify_" + name + ": Assertion `" + name + "_sprom' failed"));
  }
  for (const uint32_t type : no_kinds)
    EXPECT_EQ(verify(nullptr, type), "-19");
}

TEST(sprom_xsum, sums_all_bytes_but_its_own_modulo_65536) {
  bytes block(600, 0xFF);
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 16) & 0xFFFF, 14U * 0xFF);
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 600) & 0xFFFF, 598U * 0xFF % 0x10000);
  // The sum of exactly 65536 is 0 before its own bytes are taken off.
  block[257] = 1;
  EXPECT_EQ(diag_sprom_compute_xsum(block.data(), 258), 0x10000U - 2 * 0xFF);
}

std::vector<tool::write_step_t> plan(uint32_t type, const bytes &from, const bytes &to) {
  const tool::image_place_t whole{tool::kind_by_type(type), 0};
  return tool::plan_write({&whole, 1}, from, to);
}

// Follows the plan; at each step the byte in the cell takes every value, as if torn there.
void expect_no_false_block(uint32_t type, const bytes &from, const bytes &to) {
  bytes now = from;
  for (const tool::write_step_t &step : plan(type, from, to)) {
    EXPECT_NE(now[step.offset], step.value);
    for (unsigned torn = 0; torn < 0x100; ++torn) {
      now[step.offset] = static_cast<uint8_t>(torn);
      ASSERT_FALSE(is_false(now, from, to, type));
    }
    now[step.offset] = step.value;
  }
  EXPECT_EQ(now, to);
}

TEST(sprom_plan, stands_a_cut_at_any_byte_torn_to_anything) {
  for (const uint32_t type : image_kinds) {
    SCOPED_TRACE(type);
    const bytes old = device_image(type);
    ASSERT_TRUE(is_accepted(old, type));
    bytes other = counting(old.size(), 91);
    for (const test_block &block : test_blocks.at(type))
      std::copy_n(&old[block.offset], 4, &other[block.offset]);
    seal_image(&other, type);
    expect_no_false_block(type, old, other);

    // Sums that come back to the old one on the way, in one block and in two.
    bytes swapped = old;
    std::swap(swapped[40], swapped[41]);
    swapped[50] = static_cast<uint8_t>(swapped[50] + 5);
    std::swap(swapped[170], swapped[171]);
    seal_image(&swapped, type);
    expect_no_false_block(type, old, swapped);

    // On top of what an earlier cut left, after any number of its steps.
    bytes cut = old;
    for (const tool::write_step_t &step : plan(type, old, swapped)) {
      cut[step.offset] = step.value;
      expect_no_false_block(type, cut, swapped);
    }

    // To wrong checksums. The first one's high byte and the old low byte together would be right.
    cut[14] = cut[15] = 0;
    seal_image(&cut, type);
    bytes wrong = cut;
    wrong[14] = wrong[15] = 0x80;
    seal_image(&wrong, type);
    wrong[5] ^= 1;
    wrong[165] ^= 1;
    const bytes right = cut;
    for (const tool::write_step_t &step : plan(type, right, wrong)) {
      cut[step.offset] = step.value;
      EXPECT_FALSE(is_false(cut, right, wrong, type)) << step.offset;
    }
    EXPECT_TRUE(plan(type, other, other).empty());
  }
}

}  // namespace
