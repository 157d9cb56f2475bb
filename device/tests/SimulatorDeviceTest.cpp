// Connection, run control, memory and registers through the device queue on the built-in simulated
// target, with the committed fixture programs.
#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QThread>
#include <chrono>
#include <functional>

#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/tests/LocationRecorder.h"
#include "device/tests/ProbeLayerDevice.h"
#include "device/tests/PumpUntil.h"

namespace {

struct SESSION_RECORDER : CDeviceEventListener {
  QStringList Calls;
  void OnDeviceConnectDone(CONNECT_MODES m) override { Calls << QString("ConnectDone %1").arg(m); }
  void OnDeviceConnectFailed(CONNECT_MODES m) override { Calls << QString("ConnectFailed %1").arg(m); }
  void OnDeviceHaltDone(U32 PC, HALT_REASONS r) override {
    Calls << QString("HaltDone 0x%1 %2").arg(PC, 0, 16).arg(r);
  }
  void OnDeviceResetDone(U32 PC, RESET_MODES m) override {
    Calls << QString("ResetDone 0x%1 %2").arg(PC, 0, 16).arg(m);
  }
  void OnDeviceResumeDone(RESUME_MODES m) override { Calls << QString("ResumeDone %1").arg(m); }
  void OnDeviceConnectionLost() override { Calls << "ConnectionLost"; }
  void OnDeviceWriteMemDone(U32 Addr, U32 n, U8*) override {
    Calls << QString("WriteMemDone 0x%1 %2").arg(Addr, 0, 16).arg(n);
  }
  void OnDeviceLogMsg(const char* s, MSG_INFO_FLAGS) override { Logs << s; }
  QStringList Logs;
};

QByteArray Fixture(const char* sName) {
  QFile File(QString(ZEVRA_SOURCE_DIR) + "/target/elf/" + sName);
  return File.open(QIODevice::ReadOnly) ? File.readAll() : QByteArray();
}

U32 LittleEndianWord(const QByteArray& Bytes, int Offset) {
  U32 v = 0;
  memcpy(&v, Bytes.constData() + Offset, 4);
  return v;
}

class SimulatorDevice : public CProbeLayerDeviceTest {
 protected:
  // Chooses the device, attaches, downloads the fixture's image and resets to its reset vector.
  void StartWith(const char* sImage, const char* sDevice = "Simulator Cortex-M4") {
    ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_DEVICE_NAME, sDevice), 0);
    ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);
    ASSERT_TRUE(PumpUntil([&] {
      return Recorder.Calls.contains(QString("ConnectDone %1").arg(CM_ATTACH_HALT));
    })) << Recorder.Calls.join("; ").toStdString();
    Image = Fixture(sImage);
    ASSERT_FALSE(Image.isEmpty());
    ASSERT_EQ(pDevice->ScheduleWriteMem(0, U32(Image.size()), reinterpret_cast<const U8*>(Image.constData()),
                                        0x1000, 0, CDevice::MEM_FLAG_DOWNLOAD),
              0);
    ASSERT_EQ(pDevice->ScheduleReset(RM_RESET_HALT), 0);
    U32 ResetVector = LittleEndianWord(Image, 4) & ~1u;
    ASSERT_TRUE(PumpUntil([&] {
      return Recorder.Calls.contains(QString("ResetDone 0x%1 %2").arg(ResetVector, 0, 16).arg(RM_RESET_HALT));
    })) << Recorder.Calls.join("; ").toStdString();
    Recorder.Calls.clear();
  }

  SESSION_RECORDER Recorder;
  QByteArray Image;
};

}  // namespace

TEST_F(SimulatorDevice, ResetStopsAtTheResetVectorWithTheInitialStackPointer) {
  StartWith("basic-O0.bin");
  EXPECT_EQ(U32(pDevice->GetPC()), LittleEndianWord(Image, 4) & ~1u);
  EXPECT_EQ(U32(pDevice->GetRegVal(REG_SP)), LittleEndianWord(Image, 0));
  EXPECT_TRUE(pDevice->IsHaltCertain());
  EXPECT_EQ(pDevice->GetCoreFamily(), DF_CORTEX_M4);
  EXPECT_EQ(pDevice->GetPCRegIndex(), 15u);
}

TEST_F(SimulatorDevice, BreakpointHaltIsReportedWithItsReason) {
  StartWith("basic-O0.bin");
  const U32 Main = 0xE0;  // "main" in target/elf/basic-O0.nm
  ASSERT_EQ(pDevice->ScheduleSetBP(Main, 1, 0), 0);
  ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);
  ASSERT_TRUE(PumpUntil([&] {
    return Recorder.Calls.contains(QString("HaltDone 0x%1 %2").arg(Main, 0, 16).arg(HR_BREAKPOINT));
  })) << Recorder.Calls.join("; ").toStdString();
  EXPECT_TRUE(Recorder.Calls.contains("ResumeDone 0"));
  // A halt asked for while halted changes nothing and reports nothing.
  Recorder.Calls.clear();
  ASSERT_EQ(pDevice->ScheduleHalt(), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_HALT, false), 0);
  DispatchDeviceEvents(100);
  EXPECT_TRUE(Recorder.Calls.isEmpty()) << Recorder.Calls.join("; ").toStdString();
  // Clearing the breakpoint and halting a running target gives a plain halt.
  ASSERT_EQ(pDevice->ScheduleClearBP(Main), 0);
  ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);
  ASSERT_TRUE(PumpUntil([&] { return pDevice->IsRunning(); }));
  ASSERT_EQ(pDevice->ScheduleHalt(), 0);
  ASSERT_TRUE(PumpUntil([&] {
    return Recorder.Calls.filter(QRegularExpression(" 0$")).filter("HaltDone").size() == 1;
  })) << Recorder.Calls.join("; ").toStdString();
}

TEST_F(SimulatorDevice, ResumeBehindTheDebuggersBackIsNoticed) {
  StartWith("basic-O0.bin");
  // A branch to itself in RAM keeps the target running until the device looks.
  const U8 aLoop[2] = {0xFE, 0xE7};
  ASSERT_EQ(pDevice->WriteMem(0x20000000, 2, 0, 0, 0, aLoop), 2);
  ASSERT_EQ(pDevice->WriteReg(REG_PC, 0x20000000), 0);
  char acOut[256] = {0};
  // The probe is reached directly, as another tool on the same probe would.
  ASSERT_EQ(TARVIKARM_ExecCommand("SimResume", acOut, sizeof(acOut)), 0) << acOut;
  EXPECT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ResumeDone 0"); }, 8000))
      << Recorder.Calls.join("; ").toStdString();
  EXPECT_TRUE(pDevice->IsRunning());
  EXPECT_FALSE(pDevice->IsStateValid());
}

TEST_F(SimulatorDevice, ReadsMarkEveryByteTheTargetCouldNotGive) {
  StartWith("basic-O0.bin");
  // SRAM ends at 0x20040000: a read across the end gives good bytes up to the hole.
  U8 aData[32];
  U8 aStatus[32];
  memset(aData, 0x55, sizeof(aData));
  int Read = pDevice->ReadMem(0x2003FFF0, 32, 0, 0, 0, aData, aStatus);
  EXPECT_LT(Read, 32);
  // With item-wise reading after a short chunk, each byte ends as good or failed, and failed ones are 0.
  Read = pDevice->ReadMem(0x2003FFF0, 32, 8, 1, CDevice::MEM_FLAG_ITEM_WISE_AFTER_SHORT, aData, aStatus);
  EXPECT_EQ(Read, 16);
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(aStatus[i], i < 16 ? 0 : 1) << i;
    if (i >= 16) {
      EXPECT_EQ(aData[i], 0) << i;
    }
  }
  // An unmapped word fails as a whole, it doesn't read as zero.
  U32 Word = 0;
  EXPECT_EQ(pDevice->ReadWord(0x10000000, &Word), -1);
  EXPECT_EQ(Word, 0xEEEEEEEEu);
  EXPECT_EQ(pDevice->ReadWord(0x0, &Word), 0);
  EXPECT_EQ(Word, LittleEndianWord(Image, 0));
  EXPECT_EQ(pDevice->ReadWord(0x2, &Word), -1);  // unaligned
  EXPECT_EQ(pDevice->ReadWord(0xFFFFFFFB, &Word), -1);
  U16 Half = 0;
  EXPECT_EQ(pDevice->ReadHalfWord(0x4, &Half), 0);
  EXPECT_EQ(Half, LittleEndianWord(Image, 4) & 0xFFFF);
  // Validation refuses what can't be a read.
  EXPECT_EQ(pDevice->ReadMem(0xFFFFFFF0, 0x20, 0, 0, 0, aData, aStatus), 0);
  EXPECT_EQ(pDevice->ReadMem(0x20000000, 0, 0, 0, 0, aData, aStatus), 0);
  EXPECT_EQ(pDevice->ReadMem(0x20000000, 4, 0, 0, 0, aData, nullptr), 0);
}

TEST_F(SimulatorDevice, RegisterAccessChecksItsArgumentsFirst) {
  StartWith("basic-O0.bin");
  I64 Value = 0;
  EXPECT_EQ(pDevice->ReadReg(82, &Value), -1);
  EXPECT_EQ(Value, -1);
  EXPECT_EQ(pDevice->WriteReg(0, -5), -1);  // refused before anything else but the index
  ASSERT_EQ(pDevice->WriteReg(0, 0x1234), 0);
  ASSERT_EQ(pDevice->ReadReg(0, &Value), 0);
  EXPECT_EQ(Value, 0x1234);
  U32 aIdx[3] = {0, 15, 13};
  I64 aVal[3];
  ASSERT_EQ(pDevice->ReadRegs(3, aIdx, aVal), 0);
  EXPECT_EQ(aVal[0], 0x1234);
  EXPECT_EQ(U32(aVal[1]), LittleEndianWord(Image, 4) & ~1u);  // the PC without its Thumb bit
  EXPECT_EQ(pDevice->ReadRegs(0, aIdx, aVal), -1);
  EXPECT_EQ(pDevice->ReadRegs(64, aIdx, aVal), -1);
}

TEST_F(SimulatorDevice, LostProbeIsReportedOnceAndCancelsPendingJobs) {
  StartWith("basic-O0.bin");
  ASSERT_EQ(pDevice->ScheduleExecTarvikCmd("SimFault=ConnLost"), 0);
  EXPECT_GE(pDevice->WaitForJobThenPump(JT_EXEC_TARVIK_CMD, false), 0);
  ASSERT_EQ(pDevice->ScheduleContinue(GO_USER), 0);  // the loss shows when the target is polled
  ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains("ConnectionLost"); }, 8000))
      << Recorder.Calls.join("; ").toStdString();
  EXPECT_TRUE(pDevice->IsConnLost());
  EXPECT_FALSE(pDevice->IsJobPending(JT_ANY));
  DispatchDeviceEvents(100);
  EXPECT_EQ(Recorder.Calls.count("ConnectionLost"), 1);
  ASSERT_EQ(pDevice->ScheduleDisconnect(), 0);
  EXPECT_TRUE(PumpUntil([&] { return !pDevice->IsConnected(); }));
}

TEST_F(SimulatorDevice, UnknownDeviceNameFailsTheConnect) {
  ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_DEVICE_NAME, "Simulator Cortex-M7"), 0);
  ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH), 0);
  ASSERT_TRUE(PumpUntil([&] { return Recorder.Calls.contains(QString("ConnectFailed %1").arg(CM_ATTACH)); }))
      << Recorder.Calls.join("; ").toStdString();
  EXPECT_FALSE(pDevice->IsConnected());
  EXPECT_TRUE(Recorder.Logs.filter("Simulator Cortex-M7").size() >= 1)
      << Recorder.Logs.join("; ").toStdString();
}

TEST_F(SimulatorDevice, SpeedChangeWhileConnectedReachesTheProbe) {
  StartWith("basic-O0.bin");
  ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_SPEED, 4000000), 0);
  ASSERT_GE(pDevice->WaitForJobThenPump(JT_SET_CONFIG_PARAM, false), 0);
  EXPECT_TRUE(PumpUntil([&] { return pDevice->GetTIFSpeed() == 4000000; })) << pDevice->GetTIFSpeed();
  DEV_CONFIG Config = pDevice->GetConfig();
  EXPECT_EQ(Config.UseMaxSpeed, 0);
  EXPECT_TRUE(pDevice->GetTarvikSettings().contains("Speed=\"4000 kHz\""));
}

// A project that names its device and connects reaches that core on the first connect: the session
// opens the probe layer before it sends the device name. CPUID as QEMU 7.2 reports it for the same
// cores (qemu-system-arm -M microbit, mps2-an385, mps2-an386; gdb-multiarch "x/wx 0xE000ED00").
TEST_F(SimulatorDevice, TheFirstConnectReachesTheChosenCore) {
  struct CASE {
    const char* sDevice;
    U32 CpuId;
    int Family;
  } aCases[] = {{"Simulator Cortex-M0", 0x410CC200u, DF_CORTEX_M0},
                {"Simulator Cortex-M3", 0x410FC231u, DF_CORTEX_M3},
                {"Simulator Cortex-M4", 0x410FC240u, DF_CORTEX_M4}};
  for (const CASE& C : aCases) {
    SCOPED_TRACE(C.sDevice);
    ASSERT_EQ(pDevice->ScheduleSetConfigParam(DCP_DEVICE_NAME, C.sDevice), 0);
    ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);
    ASSERT_TRUE(PumpUntil([&] {
      return Recorder.Calls.contains(QString("ConnectDone %1").arg(CM_ATTACH_HALT));
    })) << Recorder.Calls.join("; ").toStdString();
    U32 CpuId = 0;
    EXPECT_EQ(pDevice->ReadWord(0xE000ED00, &CpuId), 0);
    EXPECT_EQ(CpuId, C.CpuId);
    EXPECT_EQ(pDevice->GetCoreFamily(), C.Family);
    ASSERT_EQ(pDevice->ScheduleDisconnect(), 0);
    ASSERT_TRUE(PumpUntil([&] { return !pDevice->IsConnected(); }));
    Recorder.Calls.clear();
  }
}

TEST(SimulatorDeviceChoice, AConnectedLayerKeepsItsDeviceAndSaysWhy) {
  PROBE_ResetLayer();
  char acOut[256] = {};
  ASSERT_EQ(TARVIKARM_ExecCommand("device=Simulator Cortex-M3", acOut, sizeof(acOut)), 0) << acOut;
  ASSERT_EQ(TARVIKARM_Open(), nullptr);
  // Chosen again while open: the layer turns to the new core before the connect.
  ASSERT_EQ(TARVIKARM_ExecCommand("device=Simulator Cortex-M0", acOut, sizeof(acOut)), 0) << acOut;
  ASSERT_EQ(TARVIKARM_Connect(), 0);
  U32 CpuId = 0;
  EXPECT_EQ(TARVIKARM_ReadMemEx(0xE000ED00, 4, &CpuId, 4), 4);
  EXPECT_EQ(CpuId, 0x410CC200u);
  EXPECT_NE(TARVIKARM_ExecCommand("device=Simulator Cortex-M4", acOut, sizeof(acOut)), 0);
  EXPECT_STREQ(acOut,
               "device \"Simulator Cortex-M4\" can't be chosen while connected to \"Simulator Cortex-M0\"; "
               "disconnect first");
  EXPECT_EQ(TARVIKARM_ReadMemEx(0xE000ED00, 4, &CpuId, 4), 4);
  EXPECT_EQ(CpuId, 0x410CC200u);
  PROBE_ResetLayer();
}

// Values by location agree with the memory and registers they name: the image's vector table, the
// stack pointer and PC a reset loads from it, constants by their bytes, register pairs by the low word
// in the lower register. The same table goes through the direct read, the read cache's synchronous read
// and a JT_READ_LOCATION job.
TEST_F(SimulatorDevice, LocationReadsAgreeWithTheMemoryAndRegistersTheyName) {
  StartWith("basic-O0.bin");
  auto Bytes = [this](int Offset, int n) {
    return std::vector<U8>(Image.begin() + Offset, Image.begin() + Offset + n);
  };
  const U32 ResetPC = LittleEndianWord(Image, 4) & ~1u;
  ELF_SYM_LOC StackValue = {};
  StackValue.kind = ELF_LOC_STACK_VALUE;
  StackValue.baseKind = ELF_LOC_ADDR;
  StackValue.baseAddr = 0x20000040;
  ELF_SYM_LOC Unspecified = RegLoc(ELF_REG_UNSPECIFIED);
  const struct {
    const char* sWhat;
    ELF_SYM_LOC Loc;
    U32 nBytes;
    std::vector<U8> aExpected;  // empty: the read fails
  } aCase[] = {
      {"word at an address", MemLoc(0), 4, Bytes(0, 4)},
      {"8 bytes at an address", MemLoc(0), 8, Bytes(0, 8)},
      {"at an address, the offset left to the caller", MemLoc(4, ELF_LOC_ADDR_OFFSET, 8), 4, Bytes(4, 4)},
      {"SP in its register", RegLoc(REG_SP), 4, Bytes(0, 4)},
      {"SP's low half word", RegLoc(REG_SP), 2, Bytes(0, 2)},
      {"PC as register plus offset",
       RegLoc(REG_PC, ELF_LOC_REG_VALUE, -16),
       4,
       {U8(ResetPC), U8(ResetPC >> 8), U8(ResetPC >> 16), U8(ResetPC >> 24)}},
      {"constant", ConstLoc(0x1122334455667788ull), 8, {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}},
      {"constant's low half word", ConstLoc(0x1122334455667788ull), 2, {0x88, 0x77}},
      {"address as the value itself", StackValue, 4, {0x40, 0x00, 0x00, 0x20}},
      {"no location", {}, 4, {}},
      {"at a register plus offset (the caller's to resolve)", RegLoc(REG_SP, ELF_LOC_AT_REG), 4, {}},
      {"9 bytes", MemLoc(0), 9, {}},
      {"no byte", MemLoc(0), 0, {}},
      {"past the end of the address space", MemLoc(0xFFFFFFFC), 8, {}},
      {"an unspecified register", Unspecified, 4, {}},
      {"a pair that would take in the PC", RegLoc(REG_LR), 8, {}},
  };
  CDeviceDataProvider* pProvider = CDeviceDataProvider::Instance();
  pProvider->Invalidate();
  for (const auto& c : aCase) {
    SCOPED_TRACE(c.sWhat);
    const bool Good = !c.aExpected.empty();
    U8 aDirect[16] = {}, aSync[16] = {};
    EXPECT_EQ(pDevice->ReadLoc(c.Loc, c.nBytes, aDirect), Good ? 0 : -1);
    EXPECT_EQ(pProvider->ReadLocSync(&c.Loc, c.nBytes, aSync), Good ? 0 : 1);
    if (c.nBytes <= 8) {
      EXPECT_EQ(std::vector<U8>(aDirect, aDirect + c.nBytes),
                Good ? c.aExpected : std::vector<U8>(c.nBytes, 0));
      EXPECT_EQ(std::vector<U8>(aSync, aSync + c.nBytes), Good ? c.aExpected : std::vector<U8>(c.nBytes, 0));
    }
    pProvider->Invalidate();  // the job below reads the target again
    LOC_RECORDER Reader;
    int r = pProvider->ReadLocAsync(&Reader, &c.Loc, c.nBytes);
    if (c.nBytes == 0 || c.nBytes > 8) {
      EXPECT_EQ(r, CDeviceDataProvider::READ_BAD_ARGS);
      continue;
    }
    ASSERT_TRUE(PumpUntil([&] { return Reader.aRead.size() == 1; }));
    EXPECT_EQ(Reader.aRead[0].Done, Good);
    EXPECT_EQ(Reader.aRead[0].aData, Good ? c.aExpected : std::vector<U8>());
  }
}

TEST_F(SimulatorDevice, LocationWritesLandInTheMemoryAndRegistersTheyName) {
  StartWith("basic-O0.bin");
  LOC_RECORDER Writer;
  const U8 aWord[4] = {0xEF, 0xBE, 0xAD, 0xDE};
  const U8 aPair[8] = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
  ASSERT_EQ(pDevice->ScheduleWriteLoc(MemLoc(0x20000011), 4, aWord), 0);
  ASSERT_EQ(pDevice->ScheduleWriteLoc(RegLoc(2), 8, aPair), 0);
  ASSERT_EQ(pDevice->ScheduleWriteLoc(RegLoc(4), 1, aWord), 0);
  ASSERT_EQ(pDevice->ScheduleWriteLoc(ConstLoc(5), 4, aWord), 0);
  ASSERT_TRUE(PumpUntil([&] { return Writer.aWrite.size() == 4; }));
  EXPECT_EQ(Writer.aWrite, std::vector<bool>({true, true, true, false}));  // a constant has no place
  U8 aMem[6] = {}, aStatus[6] = {};
  ASSERT_EQ(pDevice->ReadMem(0x20000010, 6, 0, 1, 0, aMem, aStatus), 6);
  EXPECT_EQ(std::vector<U8>(aMem, aMem + 6), std::vector<U8>({0x00, 0xEF, 0xBE, 0xAD, 0xDE, 0x00}));
  I64 R2 = -1, R3 = -1, R4 = -1;
  ASSERT_EQ(pDevice->ReadReg(U32(pDevice->GetTarvikRegIdx(2)), &R2), 0);
  ASSERT_EQ(pDevice->ReadReg(U32(pDevice->GetTarvikRegIdx(3)), &R3), 0);
  ASSERT_EQ(pDevice->ReadReg(U32(pDevice->GetTarvikRegIdx(4)), &R4), 0);
  EXPECT_EQ(R2, 0x55667788);  // the low word in the lower register
  EXPECT_EQ(R3, 0x11223344);
  EXPECT_EQ(R4, 0xEF);  // a byte written to a register is zero-extended
  // Read back by location the pair agrees, from the register cache the write kept current.
  U8 aBack[8] = {};
  EXPECT_EQ(pDevice->ReadLoc(RegLoc(2), 8, aBack), 0);
  EXPECT_EQ(std::vector<U8>(aBack, aBack + 8), std::vector<U8>(aPair, aPair + 8));

  // Several locations in one job: 4 bytes of each, -1 where one can't be read; the flag comes back.
  const ELF_SYM_LOC aLoc[] = {RegLoc(REG_SP), MemLoc(0x20000011), {}, RegLoc(3)};
  ASSERT_EQ(pDevice->ScheduleReadLocs(4, aLoc, 7), 0);
  ASSERT_TRUE(PumpUntil([&] { return Writer.aReadLocs.size() == 1; }));
  EXPECT_EQ(Writer.aReadLocs[0],
            std::vector<I64>({I64(LittleEndianWord(Image, 0)), 0xDEADBEEF, -1, 0x11223344}));
  EXPECT_EQ(Writer.aReadLocsFlag[0], 7u);
}
