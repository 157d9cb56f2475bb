// Application identity texts and the command list that dash words on the command line make.
#include <gtest/gtest.h>

#include "app/AppInfo.h"
#include "app/base/tests/QtPrinters.h"

TEST(AppInfo, VersionTextSpellsTheRevisionAsLetters) {
  struct CASE {
    int Major, Minor, Revision;
    const char* sText;
  } aCase[] = {
      {2, 44, 0, "V2.44"},   {2, 4, 0, "V2.04"},      {2, 44, 1, "V2.44a"},
      {2, 44, 26, "V2.44z"}, {2, 44, 27, "V2.44z01"}, {3, 100, 40, "V3.100z14"},
  };
  for (const CASE& c : aCase) {
    EXPECT_EQ(GetVersionText(c.Major, c.Minor, c.Revision), c.sText);
  }
  EXPECT_EQ(GetAppTitle(false, false), "Zevra");
  EXPECT_EQ(GetAppTitle(true, false), "Zevra - The Tarvik Debugger");
  EXPECT_TRUE(GetAppTitle(true, true).startsWith("Zevra - The Tarvik Debugger V2.44"));
  EXPECT_EQ(GetAppDateText().size(), 10);
}

TEST(AppInfo, ProjectFilesAreRecognisedByTheirExactSuffix) {
  EXPECT_TRUE(IsProjectFileName("demo.zvproj"));
  EXPECT_TRUE(IsProjectFileName("/a.b/demo.zvproj"));
  EXPECT_FALSE(IsProjectFileName("demo.ZVPROJ"));
  EXPECT_FALSE(IsProjectFileName("demo.zvproj.user"));
  EXPECT_FALSE(IsProjectFileName("zvproj"));
}

TEST(AppInfo, FoldersDeriveFromTheProgramFolder) {
  QString sApp = GetAppFolder();
  ASSERT_TRUE(sApp.endsWith('/'));
  EXPECT_EQ(GetConfigFolder(), sApp + "Config/");
  EXPECT_EQ(GetPeripheralFolder(), sApp + "Config/Peripherals/");
  EXPECT_EQ(GetLibFolder(), sApp + "Lib/");
  EXPECT_EQ(GetDocFolder(), sApp + "Doc/");
  EXPECT_EQ(GetPluginFolder(), sApp + "Plugins/");
}

TEST(CommandLine, DashWordsMakeAProjectCommandList) {
  struct CASE {
    QStringList Args;
    QStringList Lines;
  } aCase[] = {
      {{"-device", "STM32F407VG", "-USB", "123", "-if", "SWD", "-speed", "4000"},
       {"Project.SetDevice (\"STM32F407VG\");", "Project.SetHostIF (\"USB\", \"123\");",
        "Project.SetTargetIF (\"SWD\");", "Project.SetTIFSpeed (\"4000\");", ""}},
      {{"-device", "\"Simulator Cortex-M4\"", "-select", "IP=localhost", "-if", "SWD", "-datafile", "fw.elf"},
       // a dash inside a value is part of it
       {"Project.SetDevice (\"Simulator Cortex-M4\");", "Project.SetHostIF (\"IP\", \"localhost\");",
        "Project.SetTargetIF (\"SWD\");", "File.Open (\"fw.elf\");", ""}},
      {{"-device", "\"Sim M4\"", "-select", "USB=77", "-if", "\"JTAG\"", "-datafile", "/tmp/fw.elf"},
       {"Project.SetDevice (\"Sim M4\");", "Project.SetHostIF (\"USB\", \"77\");",
        "Project.SetTargetIF (\"JTAG\");", "File.Open (\"/tmp/fw.elf\");", ""}},
      {{"-device", "X", "-if", "SWD"}, {}},  // no host interface: no list
      {{"demo.zvproj"}, {}},
      {{"-device", "X", "-IP", "127.0.0.1", "-if", "SWD", "-datafile", "/opt/my-fw.elf"},
       {"Project.SetDevice (\"X\");", "Project.SetHostIF (\"IP\", \"127.0.0.1\");",
        "Project.SetTargetIF (\"SWD\");", "File.Open (\"/opt/my-fw.elf\");", ""}},
  };
  for (const CASE& c : aCase) {
    EXPECT_EQ(BuildCommandListFromArgs(c.Args), c.Lines) << c.Args.join(' ').toStdString();
  }
}
