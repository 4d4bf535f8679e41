// Several programs at one EEPROM: `sprom` beside itself, and beside others that hold its locks.

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "tests/support/sprom_board.h"

namespace {

// A lock on the whole of a file in the state directory, until it goes.
struct held_lock : unique_fd {
  explicit held_lock(const std::filesystem::path &file)
      : unique_fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    is_held = fcntl(get(), F_SETLK, &lock) == 0;
  }
  bool is_held = false;
};

}  // namespace

// Three that write and three that read. Each pauses before some of its transactions.
TEST_F(sprom_board, never_ends_well_with_wrong_bytes_beside_another) {
  const std::string service = "export LD_LIBRARY_PATH='" POST_LIB_DIR "/pausing'\n";
  const std::string commands =
      " sprom edit -y 1,1 --serial_number=AAAA --wait 600 -- sprom edit -y 1,1 --product_id=BBBB --wait 600 --"
      " sprom edit -y 0,0 --serial_number=CCCC --wait 600 -- sprom dump 1,1 sup --wait 600 --"
      " sprom dump 0,0 bp --wait 600 -- sprom verify --wait 600";
  for (unsigned round = 0; round < 12; ++round) {
    const std::string board = std::array{"dorvan", "pellin", "tosk"}.at(round % 3);
    SCOPED_TRACE(board + ", round " + std::to_string(round));
    const bytes chip = fresh(board, "1-52");
    const auto named = [](const bytes &image, uint32_t type, size_t offset, const char *name) {
      bytes text(offset == 34 ? 10 : 11);
      std::copy_n(name, 4, text.begin());
      return patched(image, type, offset, text);
    };
    const bytes sup = image_in(chip, 0, SPROM_TYPE_SUP), a = named(sup, SPROM_TYPE_SUP, 54, "AAAA");
    const bytes b = named(sup, SPROM_TYPE_SUP, 34, "BBBB"), both = named(a, SPROM_TYPE_SUP, 34, "BBBB");
    const bytes bp = image_in(chip, 0x1000, SPROM_TYPE_BP), c = named(bp, SPROM_TYPE_BP, 54, "CCCC");
    const auto run = run_on(board, "at_once " + std::to_string(round) + commands, service);
    EXPECT_THAT(run.out, EndsWith("\n0 0 0 0 0 0 \n")) << run.err;
    // What was read, or kept as a backup, meanwhile is an image that was there.
    EXPECT_THAT(load("sup"), AnyOf(sup, a, b, both));
    EXPECT_THAT(load("bp"), AnyOf(bp, c));
    for (const auto &file : std::filesystem::directory_iterator(path(".old"))) {
      const std::string name = file.path().filename().string();
      EXPECT_THAT(load(".old/" + name), AnyOf(sup, a, b, bp)) << name;
    }
    EXPECT_EQ(load("st/eeprom-1-52"), overlaid(overlaid(chip, 0, both), 0x1000, c));
    (void)sh("rm -r .old sup bp");
  }
}

TEST_F(sprom_board, waits_for_a_chip_and_names_who_has_it) {
  const std::string busy = "in use by process " + std::to_string(getpid());
  const std::string pin = "its protect pin is not known, since the hardware change bits cannot be read: ";
  const std::string sup = supervisor + ": ";
  // clang-format off
  const struct { std::string board, args; int status; std::string err; } rows[]{
      {"pellin", "edit -y --force 1,1 --num_6=7",  4, sup + "not written: " + busy},
      {"dorvan", "edit -y 0,0 --num_6=7",          4, "not written: " + busy},
      {"pellin", "edit -n 0,0 --num_6=7",          4, "BACKPLANE (slot 0, index 0, /dev/i2c-1:0x52): " + busy},
      {"pellin", "protect --on --force 1,1",       4, sup + "not switched on: " + busy},
      {"pellin", "protect 1,1",                    0, ""},  // asks no EEPROM
      {"pellin", "show 1,1",                       4, sup + busy},
      {"pellin", "get 1,1 num_6 --wait=1",         4, sup + busy + " (waited 1 s for it)"},
      {"pellin", "get PS1 num_6",                  0, ""},
      {"pellin", "protect dc1",                    4, pin + sup + busy},
      {"pellin", "edit -y --force dc1 --num_6=7",  4, "not written: " + pin + sup + busy},
      {"tosk --fault 'straps value=3'", "get PS1 num_6",         4, "/dev/i2c-1:0x52: " + busy + "; --family names the board's family without asking it"},
      {"tosk --fault 'straps value=3'", "get PS1 num_6 -F tosk", 0, ""},
      {"tosk",   "get PS1 num_6",                  0, ""},  // its straps say enough
  };
  // clang-format on
  for (const std::string family : {"dorvan", "pellin", "tosk"}) {
    (void)fresh(family, "1-52");
    const held_lock lock(path("st/var/lock/sprom-i2c-1-52.lock"));
    for (const auto &[of, args, status, err] : rows) {
      if (!of.starts_with(family)) continue;
      const std::string wait = args.find("--wait") == std::string::npos ? " --wait 0" : "";
      expect_on(of, args + wait, status, err.empty() ? "" : err + "\n");
    }
    expect_run(on(family, "verify -F " + family + " --wait 0"), 4, HasSubstr("\n" + sup + "busy\n  " + busy + "\n"), _);
  }
  // A service that goes by identities takes this EEPROM for one with others.
  const held_lock shared(path("st/var/lock/sprom-unit-2-0.lock"));
  const std::string service = "export LD_LIBRARY_PATH='" POST_LIB_DIR "/by-identity'\n";
  EXPECT_THAT(on("tosk", "get -F tosk --wait 0 lc2 num_6", service).err,
              EndsWith("(slot 2, /dev/i2c-7:0x52): " + busy + "\n"));
  std::thread holder([lock = std::make_unique<held_lock>(path("st/var/lock/sprom-i2c-1-52.lock"))]() mutable {
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    lock.reset();
  });
  expect_on("tosk --fault 'straps value=3'", "edit -y 1,1 --num_6=7", 0, "", true);
  holder.join();
}

// Who may put files into the directory of the locks may neither stop a write unnoticed nor have one led elsewhere.
TEST_F(sprom_board, takes_no_other_file_for_a_lock) {
  const bool is_root = geteuid() == 0;
  const std::string lock = "st/var/lock/sprom-i2c-1-52.lock";
  // How the file gets there, and why it is no lock; "" where it is one.
  // clang-format off
  const struct { std::string made, fault, defect; } rows[]{
      {"ln -s \"$PWD/victim\" " + lock,                         "", "it is a symbolic link"},
      {"ln victim " + lock,                                     "", "it has another name, too"},
      {"mkfifo " + lock,                                        "", "it is no plain file"},
      {"mkdir " + lock,                                         "", "Is a directory (errno 21)"},
      {"touch " + lock + "; chown 12345 " + lock,               "", "it belongs to another user (12345)"},
      {"chgrp 54321 st/dev/i2c-1; chmod 660 st/dev/i2c-1; touch " + lock + "; chown 12345:54321 " + lock, "", ""},
      {"touch " + lock,                                         "", ""},
      {"true",                                                  "--fault lock-dir-missing", "No such file or directory (errno 2)"},
      {"true",                                                  "--fault lock-dir-read-only", "Read-only file system (errno 30)"},
  };
  // clang-format on
  for (const auto &[made, fault, defect] : rows) {
    SCOPED_TRACE(made);
    if (made.find("chown") != std::string::npos && !is_root) continue;
    (void)fresh("dorvan", "1-52");
    (void)sh("rm -f none; echo kept >victim; rm -f " + lock + "; " + made);
    const std::string why = "cannot lock /var/lock/sprom-i2c-1-52.lock: " + defect, board = "dorvan " + fault;
    expect_on(board, "verify", 0, defect.empty() ? "" : "sprom: " + why + "; reading without the lock\n");
    const std::string refused = why + "; --force does it without the lock\n";
    expect_on(board, "edit -y 0,0 --num_6=7", defect.empty() ? 0 : 1, defect.empty() ? "" : "not written: " + refused,
              defect.empty());
    expect_on(board, "edit -y --force 0,0 --num_6=8", 0, defect.empty() ? "" : why + "\n", true);
    EXPECT_EQ(sh("cat victim; ls none").out, "kept\n");
  }
  EXPECT_EQ(on("pellin --fault lock-dir-missing", "protect --on 1,1").status, 1);
}

// Those who may use the bus may lock its chips, and nobody else may.
TEST_F(sprom_board, gives_a_lock_to_the_users_of_its_bus) {
  for (const std::string mode : {"600", "660", "666", "644"}) {
    (void)fresh("dorvan", "1-52");
    const std::string group = geteuid() == 0 ? "chgrp 54321 st/dev/i2c-1; " : "";
    (void)sh(group + "rm st/var/lock/*; chmod " + mode + " st/dev/i2c-1");
    EXPECT_EQ(on("dorvan", "verify", "umask 077\n").status, 0);
    const std::string expected = mode == "644" ? "600" : mode;
    EXPECT_EQ(sh("stat -c %a st/var/lock/*.lock").out, expected + "\n");
    const bool is_groups = geteuid() == 0 && expected != "600";
    EXPECT_EQ(sh("stat -c %g st/var/lock/*.lock").out == "54321\n", is_groups);
  }
}

TEST_F(sprom_board, keeps_nobody_waiting_for_an_answer) {
  for (const bool is_changed : {false, true}) {
    const bytes before = fresh("dorvan", "1-52");
    outcome run;
    std::thread asked([&] {
      run =
          sh("rm -f go said; (until test -e go; do sleep 0.05; done; echo y; sleep 1) | timeout 60 script -qfec "
             "'board-sim --state st -- sprom edit 1,1 --num_6=7' said");
    });
    for (int i = 0; i < 1000 && !read_file(path("said")).ends_with("[y/N] "); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(held_lock(path("st/var/lock/sprom-i2c-1-52.lock")).is_held);
    const bytes other = with_byte(before, 7, 3);
    if (is_changed) save("st/eeprom-1-52", other);
    save("go", {});
    asked.join();
    expect_run(run, is_changed ? 1 : 0,
               HasSubstr(is_changed ? ": not written: it is no longer what was shown\r\n" : " bytes written"), _);
    EXPECT_EQ(load("st/eeprom-1-52") == other, is_changed);
  }
}
