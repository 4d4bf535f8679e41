// test.h: the headers of language, system and GoogleTest that tests share, and the short names of matchers. They are
// compiled once, ahead of all tests.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/io.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using testing::_, testing::AllOf, testing::AnyOf, testing::Contains, testing::ContainsRegex, testing::Each;
using testing::ElementsAre, testing::EndsWith, testing::HasSubstr, testing::IsEmpty, testing::MatchesRegex;
using testing::Not, testing::ResultOf, testing::SizeIs, testing::StartsWith;
