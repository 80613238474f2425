#include "platform/identity/ProcessInfo.h"

#include <unistd.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace daskel::platform {
namespace {

std::string statLine(const std::string& command, char state, const std::string& startTime) {
  // pid (comm) state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt utime
  // stime cutime cstime priority nice num_threads itrealvalue starttime vsize ...
  return "4242 (" + command + ") " + state +
         " 1 4242 4242 0 -1 4194560 120 0 0 0 3 1 0 0 20 0 1 0 " + startTime +
         " 2539520 224 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
}

TEST(ProcessInfo, TheStartTimeIsCountedAfterTheLastParenthesisOfTheCommandName) {
  auto plain = parseProcessStat(statLine("sleep", 'S', "987654"));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->state, 'S');
  EXPECT_EQ(plain->startTime, 987654u);

  // A process may name itself so as to shift naive field counting.
  auto tricky = parseProcessStat(statLine("a) R 1 2 3 (b", 'Z', "55"));
  ASSERT_TRUE(tricky);
  EXPECT_EQ(tricky->state, 'Z');
  EXPECT_EQ(tricky->startTime, 55u);
}

TEST(ProcessInfo, TruncatedOrGarbledStatLinesAreRefused) {
  EXPECT_FALSE(parseProcessStat(""));
  EXPECT_FALSE(parseProcessStat("4242 sleep S 1 2 3"));
  EXPECT_FALSE(parseProcessStat("4242 (sleep) S 1 4242 4242 0 -1"));
  EXPECT_FALSE(parseProcessStat(statLine("sleep", 'S', "12x")));
  EXPECT_FALSE(parseProcessStat(statLine("sleep", 'S', "-1")));
}

TEST(ProcessInfo, ThisProcessIsReadFromProc) {
  auto stat = readProcessStat(::getpid());
  ASSERT_TRUE(stat) << stat.error()->description();
  EXPECT_EQ(stat->state, 'R');
  EXPECT_GT(stat->startTime, 0u);

  auto executable = readProcessExecutablePath(::getpid());
  ASSERT_TRUE(executable);
  EXPECT_EQ(*executable, std::filesystem::canonical("/proc/self/exe").string());

  // This test does not run in a Flatpak sandbox.
  auto flatpak = readFlatpakApplicationId(::getpid());
  ASSERT_TRUE(flatpak) << flatpak.error()->description();
  EXPECT_FALSE(*flatpak);
}

TEST(ProcessInfo, AnAbsentProcessIsAnErrorThatSaysWhere) {
  // Beyond the largest pid the kernel hands out.
  auto stat = readProcessStat(0x7ffffff0);
  ASSERT_FALSE(stat);
  EXPECT_NE(stat.error()->description().find("/proc/2147483632/stat"), std::string::npos)
      << stat.error()->description();
  EXPECT_FALSE(readProcessExecutablePath(0x7ffffff0));
  // Nothing at /proc/<pid>/root/.flatpak-info: no Flatpak id, which is not an error.
  auto flatpak = readFlatpakApplicationId(0x7ffffff0);
  ASSERT_TRUE(flatpak) << flatpak.error()->description();
  EXPECT_FALSE(*flatpak);
}

TEST(ProcessInfo, TheFlatpakApplicationIdIsTheNameOfTheApplicationGroup) {
  EXPECT_EQ(parseFlatpakApplicationId("[Application]\nname=org.example.Editor\nruntime=x\n"),
            "org.example.Editor");
  EXPECT_EQ(parseFlatpakApplicationId("# comment\n\n[Instance]\nname=not-this\n"
                                      "[Application]\r\n  name = org.example.Viewer \r\n"),
            "org.example.Viewer");
  // Only the first "[Application]" group counts, and only its exact "name" key.
  EXPECT_EQ(parseFlatpakApplicationId("[Application]\nnames=a\nname[de]=b\n[Runtime]\nname=c\n"),
            std::nullopt);
  EXPECT_EQ(parseFlatpakApplicationId("[Runtime]\nname=org.example.Platform\n"), std::nullopt);
  EXPECT_EQ(parseFlatpakApplicationId("[Application]\nname=\n"), std::nullopt);
  EXPECT_EQ(parseFlatpakApplicationId("[Application]\nname=org.example\\sEvil\n"), std::nullopt);
  EXPECT_EQ(parseFlatpakApplicationId(""), std::nullopt);
}

}  // namespace
}  // namespace daskel::platform
