// The Target memory commands in one process: reads are device jobs that the command waits for with the
// event loop running, so a gdbserver that stops answering fails them within the job's limit; half words
// and words at any address read and write as the target holds them.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include "app/BatchMode.h"
#include "app/MainWindow.h"
#include "app/actions/CommandWait.h"
#include "app/base/ConsoleCore.h"
#include "app/base/tests/QtPrinters.h"
#include "device/Device.h"
#include "device/DeviceEventListener.h"
#include "device/probe/ProbeCore.h"
#include "device/tests/StallingGdbServer.h"

namespace {

class TargetMemoryCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    PROBE_ResetLayer();
    SetTarvikApi(&TARVIK_GetProbeLayerApi());
    pWindow = new CMainWindow(true);
    ConsoleClearRing();
    ConsoleSetMirror([this](const QString& s) {
      Output << s;
      OutputMS << (Clock.isValid() ? Clock.elapsed() : -1);
    });
  }
  void TearDown() override {
    ConsoleSetMirror({});
    delete pWindow;
    delete CDevice::Instance();  // the next test starts with a fresh device thread
    PROBE_ResetLayer();
    SetTarvikApi(nullptr);
  }

  CMainWindow* pWindow = nullptr;
  QStringList Output;
  QList<qint64> OutputMS;  // when each console line came, on Clock
  QElapsedTimer Clock;
};

}  // namespace

TEST_F(TargetMemoryCommand, SilentServerFailsSaveMemoryWithinTheReadLimitWhileTheEventLoopRuns) {
  CStallingGdbServer Server;
  CDevice* pDevice = CDevice::Instance();
  ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_HOST_IF, kHostIFIP), 0);
  ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_HOST_NAME, Server.GetAddress().c_str()), 0);
  ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_DEVICE_NAME, "Simulator Cortex-M3"), 0);
  ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);
  ASSERT_EQ(pDevice->WaitForJobThenPump(JT_CONNECT, true), 0);
  ASSERT_TRUE(SettleDevice(10000));
  ASSERT_TRUE(pDevice->IsConnected());
  Server.Stall();

  // A timer of the main thread's event loop: it must go on firing while the command waits.
  int NumTicks = 0;
  qint64 LongestGapMS = 0;
  QElapsedTimer SinceTick;
  QTimer Timer;
  Timer.setInterval(10);
  QObject::connect(&Timer, &QTimer::timeout, [&] {
    if (SinceTick.isValid()) {
      LongestGapMS = std::max(LongestGapMS, SinceTick.elapsed());
    }
    SinceTick.start();
    ++NumTicks;
  });
  Timer.start();

  QTemporaryDir Dir;
  const QString sFile = Dir.filePath("ram.bin");
  const QString sLine = QString("Target.SaveMemory (\"%1\", 0x20000000, 0x10000)").arg(sFile);
  Clock.start();
  EXPECT_EQ(RunBatchLines({sLine}, 60), BATCH_EXIT_COMMAND_FAILED);
  Timer.stop();

  const int At = Output.indexOf(sLine + ": could not read memory: 0x20000000");
  ASSERT_GE(At, 0) << Output.join("\n").toStdString();
  const qint64 FailedAfterMS = OutputMS[At];
  printf(
      "[ measured ] 64 KiB SaveMemory from a silent server failed after %lld ms; the main thread's timer "
      "fired %d times, longest gap %lld ms\n",
      static_cast<long long>(FailedAfterMS), NumTicks, static_cast<long long>(LongestGapMS));
  EXPECT_LT(FailedAfterMS, JobTypeToTimeoutMS(JT_READ_MEM));
  // The back-end waits 3 s for a reply; the main thread never waits that out itself.
  EXPECT_GT(NumTicks, 10);
  EXPECT_LT(LongestGapMS, 1000);
  EXPECT_FALSE(QFileInfo::exists(sFile));
  EXPECT_EQ(Server.CountSinceStall("m"), 1);
}

// Expected values by the little-endian rule of the ARM architecture: the byte at the lowest address is
// the least significant.
TEST_F(TargetMemoryCommand, UnalignedHalfWordsAndWordsReadAndWriteTheBytesTheyCover) {
  const QStringList Lines = {
      "Exec.Connect",
      "Target.WriteU32 (0x20000100, 0x44332211)",
      "Target.WriteU32 (0x20000104, 0x88776655)",
      "Target.ReadU16 (0x20000101)",
      "Target.ReadU16 (0x20000103)",
      "Target.ReadU32 (0x20000101)",
      "Target.ReadU32 (0x20000102)",
      "Target.ReadU32 (0x20000103)",
      "Target.FillMemory (0x20000200, 12, 0)",
      "Target.WriteU32 (0x20000201, 0xA1B2C3D4)",
      "Target.WriteU16 (0x20000207, 0xBEEF)",
      "Target.ReadU32 (0x20000200)",
      "Target.ReadU32 (0x20000204)",
      "Target.ReadU32 (0x20000208)",
  };
  ASSERT_EQ(RunBatchLines(Lines, 60), BATCH_EXIT_OK) << Output.join("\n").toStdString();
  const QStringList Results = Output.filter(QRegularExpression("^= "));
  EXPECT_EQ(Results, QStringList({
                         "= 13090 (0x00003322)",        // 0x20000101: 22 33
                         "= 21828 (0x00005544)",        // 0x20000103: 44 55
                         "= 1430532898 (0x55443322)",   // 0x20000101: 22 33 44 55
                         "= 1716864051 (0x66554433)",   // 0x20000102: 33 44 55 66
                         "= 2003195204 (0x77665544)",   // 0x20000103: 44 55 66 77
                         "= -1295789056 (0xB2C3D400)",  // 0x20000200: 00 D4 C3 B2
                         "= -285212511 (0xEF0000A1)",   // 0x20000204: A1 00 00 EF
                         "= 190 (0x000000BE)",          // 0x20000208: BE 00 00 00
                     }))
      << Output.join("\n").toStdString();
}
