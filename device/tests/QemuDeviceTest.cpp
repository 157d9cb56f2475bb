// The device queue on a real gdbserver: QEMU reached through the IP interface, and QEMU killed under a
// running target and under a download.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/tests/QemuProcess.h"
#include "device/tests/ProbeLayerDevice.h"
#include "device/tests/PumpUntil.h"

namespace {

struct LOSS_RECORDER : CDeviceEventListener {
  QStringList Calls;
  void OnDeviceConnectDone(CONNECT_MODES m) override { Calls << QString("ConnectDone %1").arg(m); }
  void OnDeviceHaltDone(U32 PC, HALT_REASONS r) override {
    Calls << QString("HaltDone 0x%1 %2").arg(PC, 0, 16).arg(r);
  }
  void OnDeviceConnectionLost() override { Calls << "ConnectionLost"; }
};

class QemuDevice : public CProbeLayerDeviceTest {
 protected:
  void SetUp() override {
    if (!_HasProgram("qemu-system-arm")) {
      GTEST_SKIP() << "qemu-system-arm is not installed";
    }
    CProbeLayerDeviceTest::SetUp();
  }
  // Attaches to the QEMU through the IP interface; the device names the chip QEMU emulates.
  void Attach(const CQemu& Qemu) {
    UseGdbServer(Qemu.GetAddress());
    ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);
    ASSERT_TRUE(PumpUntil([&] {
      return Recorder.Calls.contains(QString("ConnectDone %1").arg(CM_ATTACH_HALT));
    })) << Recorder.Calls.join("; ").toStdString();
    ASSERT_TRUE(PumpUntil([&] { return pDevice->IsHaltCertain(); }));
    Recorder.Calls.clear();
  }

  LOSS_RECORDER Recorder;
};

}  // namespace

TEST_F(QemuDevice, ReadsTheVectorTableOfTheProgramQemuLoaded) {
  CQemu Qemu("basic-O0");
  Attach(Qemu);
  std::vector<U8> Image = LoadFile(FixturePath("basic-O0", ".bin"));
  ASSERT_GE(Image.size(), 8u);
  U32 Word = 0;
  ASSERT_EQ(pDevice->ReadWord(0, &Word), 0);
  EXPECT_EQ(Word, U32(Image[0] | Image[1] << 8 | Image[2] << 16 | U32(Image[3]) << 24));
  EXPECT_EQ(pDevice->GetPC(), U32(Image[4] | Image[5] << 8 | Image[6] << 16 | U32(Image[7]) << 24) & ~1u);
}

TEST_F(QemuDevice, KilledQemuIsAConnectionLossThatCancelsWhatWasQueued) {
  struct CASE {
    const char* sWhat;
    bool Download;
  } aCase[] = {{"while the target runs", false}, {"during a download", true}};
  for (const CASE& c : aCase) {
    SCOPED_TRACE(c.sWhat);
    CQemu Qemu("basic-O0");
    Attach(Qemu);
    std::vector<U8> Block(256 * 1024, 0xA5);
    if (c.Download) {
      ASSERT_EQ(pDevice->ScheduleWriteMem(0x20000000, U32(Block.size()), Block.data(), 0x1000, 0,
                                          CDevice::MEM_FLAG_DOWNLOAD),
                0);
    } else {
      ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);
      ASSERT_TRUE(PumpUntil([&] { return pDevice->IsRunning(); }));
    }
    for (U32 i = 0; i < 20; ++i) {
      pDevice->ScheduleReadReg(i % 13);
    }
    Qemu.Kill();
    ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ConnectionLost"); }, 15000))
        << Recorder.Calls.join("; ").toStdString();
    EXPECT_TRUE(PumpUntil([&] { return !pDevice->IsJobPending(JT_ANY); }));
    DispatchDeviceEvents(100);
    EXPECT_EQ(Recorder.Calls.count("ConnectionLost"), 1);
    ASSERT_EQ(pDevice->ScheduleDisconnect(), 0);
    ASSERT_TRUE(PumpUntil([&] { return !pDevice->IsConnected(); }));
    Recorder.Calls.clear();
  }
}

// Half words and words at every alignment, as the Target memory commands do them: reads of the program
// QEMU loaded, compared with the bytes of the image file, and writes to RAM, compared byte by byte by the
// little-endian rule of the architecture.
TEST_F(QemuDevice, UnalignedHalfWordsAndWordsReadAndWriteTheBytesTheyCover) {
  CQemu Qemu("basic-O0");
  Attach(Qemu);
  std::vector<U8> Image = LoadFile(FixturePath("basic-O0", ".bin"));
  ASSERT_GE(Image.size(), 16u);
  CDeviceDataProvider* pProvider = CDeviceDataProvider::Instance();
  for (U32 Size : {2u, 4u}) {
    for (U32 Addr = 1; Addr < 4; ++Addr) {
      SCOPED_TRACE(testing::Message() << Size << " bytes at " << Addr);
      U8 aData[4] = {}, aStatus[4] = {};
      ASSERT_EQ(pProvider->ReadMemWait(Addr, Size, 0, Size, 0, aData, aStatus), 0);
      EXPECT_EQ(std::vector<U8>(aData, aData + Size), std::vector<U8>(&Image[Addr], &Image[Addr] + Size));
    }
  }
  const U32 Ram = 0x20000100;
  const std::vector<U8> Zero(12, 0);
  ASSERT_EQ(pDevice->ScheduleWriteMem(Ram, 12, Zero.data(), 0, 1, 0), 0);
  const U32 Word = 0xA1B2C3D4;
  const U16 Half = 0xBEEF;
  ASSERT_EQ(pDevice->ScheduleWriteMem(Ram + 1, 4, reinterpret_cast<const U8*>(&Word), 0, 4, 0), 0);
  ASSERT_EQ(pDevice->ScheduleWriteMem(Ram + 7, 2, reinterpret_cast<const U8*>(&Half), 0, 2, 0), 0);
  ASSERT_TRUE(PumpUntil([&] { return !pDevice->IsJobPending(JT_WRITE_MEM); }));
  U8 aBytes[12] = {}, aStatus[12] = {};
  ASSERT_EQ(pProvider->ReadMemWait(Ram, 12, 0, 1, 0, aBytes, aStatus), 0);
  EXPECT_EQ(std::vector<U8>(aBytes, aBytes + 12),
            std::vector<U8>({0x00, 0xD4, 0xC3, 0xB2, 0xA1, 0x00, 0x00, 0xEF, 0xBE, 0x00, 0x00, 0x00}));
}
