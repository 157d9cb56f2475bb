// The read cache against a scripted target with a memory map: answers from the mirror, merged
// requests, the split of mixed ranges, unreadable holes, flushing, invalidation, the bound of the
// synchronous reads and the register mirror.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <functional>
#include <vector>

#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/tests/FakeProbe.h"
#include "device/tests/LocationRecorder.h"
#include "device/tests/PumpUntil.h"

namespace {

// The target's memory: [0, kMemEnd) is readable except the hole [kHoleStart, kHoleEnd); nothing
// outside it is. Register kFailingReg cannot be read; every other register reads 0x1000 + index.
constexpr U32 kMemEnd = 0x8000;
constexpr U32 kHoleStart = 0x3000;
constexpr U32 kHoleEnd = 0x3100;
constexpr U32 kFailingReg = 7;

struct FAKE_MEMORY {
  U8 aByte[kMemEnd];
  std::atomic<int> nReads{0};
  std::atomic<int> nReadsOfFlushedRanges{0};  // reads touching 0x1000..0x2010, the flush test's ranges
};

FAKE_MEMORY& Memory() {
  static FAKE_MEMORY m;
  return m;
}

bool IsReadable(U32 Addr) {
  return Addr < kMemEnd && (Addr < kHoleStart || Addr >= kHoleEnd);
}

// The contents the target starts with; what a good byte must read as.
U8 InitialByte(U32 Addr) {
  return IsReadable(Addr) ? U8((Addr * 37u) ^ (Addr >> 8) ^ 0x5Au) : 0;
}

void ResetMemory() {
  for (U32 a = 0; a < kMemEnd; ++a) {
    Memory().aByte[a] = InitialByte(a);
  }
  Memory().nReads = 0;
  Memory().nReadsOfFlushedRanges = 0;
}

// Good bytes from the start up to the first unreadable one; the count of them.
U32 ReadPrefix(U32 Addr, U32 n, U8* p) {
  Memory().nReads++;
  if (Addr < 0x2010 && Addr + n > 0x1000) {
    Memory().nReadsOfFlushedRanges++;
  }
  U32 Good = 0;
  while (Good < n && IsReadable(Addr + Good)) {
    p[Good] = Memory().aByte[Addr + Good];
    ++Good;
  }
  return Good;
}

template <typename T>
int ReadItems(U32 Addr, U32 Cnt, T* pData, U8* pStatus) {
  int Good = 0;
  for (U32 i = 0; i < Cnt; ++i) {
    U8 ac[sizeof(T)] = {};
    bool Ok = ReadPrefix(Addr + i * U32(sizeof(T)), sizeof(T), ac) == sizeof(T);
    T v = 0;
    memcpy(&v, ac, sizeof(T));
    pData[i] = Ok ? v : 0;
    if (pStatus) {
      pStatus[i] = Ok ? 0 : 1;
    }
    Good += Ok ? 1 : 0;
  }
  return Good ? Good : -1;
}

int WriteBytes(U32 Addr, U32 n, const void* p) {
  for (U32 i = 0; i < n; ++i) {
    if (!IsReadable(Addr + i)) {
      return int(i);
    }
    Memory().aByte[Addr + i] = static_cast<const U8*>(p)[i];
  }
  return int(n);
}

U32 RegValue(U32 Idx) {
  return Idx == REG_PC ? Fake().PC.load() : 0x1000 + Idx;
}

// The scripted probe of the queue tests (connect, halt, hold), with memory and registers added.
const TARVIK_API& MemoryProbeApi() {
  static TARVIK_API Api = [] {
    TARVIK_API a = FakeProbeApi();
    a.TARVIKARM_ReadMemEx = [](U32 Addr, U32 n, void* p, U32) -> int {
      int Good = int(ReadPrefix(Addr, n, static_cast<U8*>(p)));
      return Good > 0 ? Good : -1;
    };
    a.TARVIKARM_ReadMemHW = [](U32 Addr, U32 n, void* p) -> int {
      return ReadPrefix(Addr, n, static_cast<U8*>(p)) == n ? 0 : -1;
    };
    a.TARVIKARM_ReadMem = a.TARVIKARM_ReadMemHW;
    a.TARVIKARM_ReadMemU8 = [](U32 Addr, U32 Cnt, U8* p, U8* s) { return ReadItems(Addr, Cnt, p, s); };
    a.TARVIKARM_ReadMemU16 = [](U32 Addr, U32 Cnt, U16* p, U8* s) { return ReadItems(Addr, Cnt, p, s); };
    a.TARVIKARM_ReadMemU32 = [](U32 Addr, U32 Cnt, U32* p, U8* s) { return ReadItems(Addr, Cnt, p, s); };
    a.TARVIKARM_ReadMemU64 = [](U32 Addr, U32 Cnt, U64* p, U8* s) { return ReadItems(Addr, Cnt, p, s); };
    a.TARVIKARM_WriteMemEx = [](U32 Addr, U32 n, const void* p, U32) { return WriteBytes(Addr, n, p); };
    a.TARVIKARM_WriteMem = [](U32 Addr, U32 n, const void* p) { return WriteBytes(Addr, n, p); };
    a.TARVIKARM_WriteU8 = [](U32 Addr, U8 v) { return WriteBytes(Addr, 1, &v) == 1 ? 0 : -1; };
    a.TARVIKARM_WriteU16 = [](U32 Addr, U16 v) { return WriteBytes(Addr, 2, &v) == 2 ? 0 : -1; };
    a.TARVIKARM_WriteU32 = [](U32 Addr, U32 v) { return WriteBytes(Addr, 4, &v) == 4 ? 0 : -1; };
    a.TARVIKARM_WriteU64 = [](U32 Addr, U64 v) { return WriteBytes(Addr, 8, &v) == 8 ? 0 : -1; };
    a.TARVIKARM_BeginDownload = [](U32) {};  // memory written for download lands at once
    a.TARVIKARM_EndDownload = []() -> int { return 0; };
    a.TARVIKARM_ReadReg = [](U32 Idx) -> U32 { return RegValue(Idx); };
    a.TARVIKARM_CP15_ReadEx = [](U8, U8, U8, U8, U32* pOut) -> int {
      *pOut = 0x41;
      return 0;
    };
    a.TARVIKARM_ReadRegs = [](const U32* paIdx, U32* paData, U8* paStatus, U32 Cnt) -> int {
      for (U32 i = 0; i < Cnt; ++i) {
        const bool Ok = paIdx[i] != kFailingReg;
        paData[i] = Ok ? RegValue(paIdx[i]) : 0;
        paStatus[i] = Ok ? 0 : 1;
      }
      return 0;
    };
    return a;
  }();
  return Api;
}

struct MEM_ANSWER {
  U32 Addr;
  std::vector<U8> aData;
  std::vector<U8> aStatus;
};

// A window that reads: it records every answer it hears.
struct READER : CDeviceEventListener {
  std::vector<MEM_ANSWER> aMem;
  std::vector<std::pair<U32, I64>> aReg;  // one entry per register answered
  int nRegsAnswers = 0;                   // answers for several registers at once
  std::vector<I64> aCPR;

  ~READER() override { CDeviceDataProvider::Instance()->CancelRequests(this); }
  void OnDeviceReadMemDone(U32 Addr, U32 n, U8* paData, U8* paStatus) override {
    aMem.push_back({Addr, std::vector<U8>(paData, paData + n), std::vector<U8>(paStatus, paStatus + n)});
  }
  void OnDeviceReadRegDone(U32 Idx, I64 Value) override { aReg.emplace_back(Idx, Value); }
  void OnDeviceReadRegsDone(U32 Cnt, U32* paIdx, I64* paVal) override {
    ++nRegsAnswers;
    for (U32 i = 0; i < Cnt; ++i) {
      aReg.emplace_back(paIdx[i], paVal[i]);
    }
  }
  void OnDeviceReadCPRDone(ARM_CPR*, I64 Value) override { aCPR.push_back(Value); }
};

std::vector<U8> InitialBytes(U32 Addr, U32 n) {
  std::vector<U8> a(n);
  for (U32 i = 0; i < n; ++i) {
    a[i] = InitialByte(Addr + i);
  }
  return a;
}

class DataProvider : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetFake();
    ResetMemory();
    SetTarvikApi(&MemoryProbeApi());
    ResetDeviceEventQueue();
    pDevice = new CDevice();
    P = CDeviceDataProvider::Instance();
    ASSERT_EQ(pDevice->ScheduleConnect(CM_BARE), 0);
    ASSERT_GE(pDevice->WaitForJob(JT_CONNECT, false), 0);
    DispatchDeviceEvents(100);
    ASSERT_TRUE(pDevice->IsConnected());
    ASSERT_TRUE(pDevice->IsStateValid());
    P->Invalidate();  // nothing of an earlier test's target
  }
  void TearDown() override {
    Fake().Release();
    DispatchDeviceEvents(int(kEventRingSize));
    P->Invalidate();
    delete pDevice;
    ResetDeviceEventQueue();
    SetTarvikApi(nullptr);
  }

  // Waits until no read is queued or running and every event has been heard.
  void Settle() {
    ASSERT_GE(pDevice->WaitForJob(JT_READ_MEM, false), 0);
    ASSERT_GE(pDevice->WaitForJob(JT_READ_REG, false), 0);
    ASSERT_GE(pDevice->WaitForJob(JT_READ_REGS, false), 0);
    // A marker behind everything in the read queue: once it is heard, so is everything before it.
    READER Marker;
    ASSERT_EQ(P->ReadMemAsync(&Marker, 0x7F00, 1, 0, 0, CDeviceDataProvider::kFlagBypassMirror),
              CDeviceDataProvider::READ_LATER);
    ASSERT_TRUE(PumpUntil([&] { return Marker.aMem.size() == 1; }));
  }
  U64 JobsStarted() const { return pDevice->GetStats().JobsStarted; }
  // Fills [Addr, Addr + n) of the mirror from the target.
  void Fill(U32 Addr, U32 n) {
    READER r;
    ASSERT_EQ(P->ReadMemAsync(&r, Addr, n), CDeviceDataProvider::READ_LATER);
    ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
  }
  std::vector<U8> Statuses(U32 Addr, U32 n) {
    std::vector<U8> a(n);
    P->PeekMem(Addr, n, nullptr, a.data());
    return a;
  }
  void HoldDeviceThread() {
    Fake().Hold();
    ASSERT_EQ(pDevice->ScheduleExecTarvikCmd("hold"), 0);
    ASSERT_TRUE(Fake().WaitEntered(5000));
  }

  CDevice* pDevice = nullptr;
  CDeviceDataProvider* P = nullptr;
};

}  // namespace

TEST_F(DataProvider, SecondReadIsAnsweredAtOnceFromTheMirror) {
  READER r;
  ASSERT_EQ(P->ReadMemAsync(&r, 0x1000, 64), CDeviceDataProvider::READ_LATER);
  EXPECT_TRUE(r.aMem.empty());
  ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
  EXPECT_EQ(r.aMem[0].Addr, 0x1000u);
  EXPECT_EQ(r.aMem[0].aData, InitialBytes(0x1000, 64));
  EXPECT_EQ(r.aMem[0].aStatus, std::vector<U8>(64, MS_VALID));

  const U64 Started = JobsStarted();
  ASSERT_EQ(P->ReadMemAsync(&r, 0x1010, 16), CDeviceDataProvider::READ_ANSWERED);
  ASSERT_EQ(r.aMem.size(), 2u);  // heard before the call returned
  EXPECT_EQ(r.aMem[1].aData, InitialBytes(0x1010, 16));
  U8 ac[8];
  EXPECT_EQ(P->ReadMemSync(0x1020, 8, CDeviceDataProvider::kAccessWidthDefault, ac), 0);
  EXPECT_EQ(std::vector<U8>(ac, ac + 8), InitialBytes(0x1020, 8));
  Settle();
  EXPECT_EQ(JobsStarted(), Started + 1);  // only the settling marker went to the target

  // Asking past the mirror reads the target again.
  ASSERT_EQ(P->ReadMemAsync(&r, 0x1000, 16, 0, 0, CDeviceDataProvider::kFlagBypassMirror),
            CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 3; }));
  EXPECT_EQ(r.aMem[2].aData, InitialBytes(0x1000, 16));
}

TEST_F(DataProvider, TwoListenersAskingForTheSameRangeShareOneJobAndBothHearIt) {
  READER a, b;
  const U64 Started = JobsStarted();
  ASSERT_EQ(P->ReadMemAsync(&a, 0x2000, 32), CDeviceDataProvider::READ_LATER);
  ASSERT_EQ(P->ReadMemAsync(&b, 0x2000, 32), CDeviceDataProvider::READ_LATER);
  ASSERT_EQ(P->ReadMemAsync(&a, 0x2000, 32), CDeviceDataProvider::READ_LATER);  // asked twice, heard once
  EXPECT_EQ(P->GetNumWaitingRequests(), 2);
  ASSERT_TRUE(PumpUntil([&] { return !a.aMem.empty() && !b.aMem.empty(); }));
  const U64 AfterAnswers = JobsStarted();
  Settle();
  EXPECT_EQ(AfterAnswers, Started + 1);
  ASSERT_EQ(a.aMem.size(), 1u);
  ASSERT_EQ(b.aMem.size(), 1u);
  EXPECT_EQ(a.aMem[0].aData, InitialBytes(0x2000, 32));
  EXPECT_EQ(b.aMem[0].aData, a.aMem[0].aData);
  EXPECT_EQ(P->GetNumWaitingRequests(), 0);
}

TEST_F(DataProvider, BadArgumentsAreRefused) {
  READER r;
  const U32 aTooMany[64] = {};
  const U32 aBadIdx[] = {1, 256};
  const ARM_CPR Cpr = {15, 0, 0, 0, 0};
  U8 ac[4];
  U32 v;
  struct ROW {
    const char* sName;
    std::function<int()> Call;
  };
  const ROW aRow[] = {
      {"no listener", [&] { return P->ReadMemAsync(nullptr, 0x1000, 4); }},
      {"no bytes", [&] { return P->ReadMemAsync(&r, 0x1000, 0); }},
      {"more than a job carries", [&] { return P->ReadMemAsync(&r, 0x1000, 10000001); }},
      {"sync without buffer", [&] { return P->ReadMemSync(0x1000, 4, 0, nullptr); }},
      {"sync without bytes", [&] { return P->ReadMemSync(0x1000, 0, 0, ac); }},
      {"no registers", [&] { return P->ReadRegsAsync(&r, 0, aTooMany); }},
      {"64 registers", [&] { return P->ReadRegsAsync(&r, 64, aTooMany); }},
      {"register index 256", [&] { return P->ReadRegsAsync(&r, 2, aBadIdx); }},
      {"registers without listener", [&] { return P->ReadRegsAsync(nullptr, 1, aBadIdx); }},
      {"sync register 256", [&] { return P->ReadRegSync(256, &v); }},
      {"coprocessor without listener", [&] { return P->ReadCPRAsync(nullptr, &Cpr); }},
      {"coprocessor without selector", [&] { return P->ReadCPRAsync(&r, nullptr); }},
  };
  const U64 Started = JobsStarted();
  for (const ROW& Row : aRow) {
    EXPECT_EQ(Row.Call(), 1) << Row.sName;
  }
  EXPECT_TRUE(r.aMem.empty());
  EXPECT_TRUE(r.aReg.empty());
  EXPECT_EQ(JobsStarted(), Started);
}

TEST_F(DataProvider, OnlyUnknownRunsAreReadAndShortRunsAreAligned) {
  // The range [0xFF0, 0x1020) is in the mirror except for one gap; asking for the whole range marks
  // exactly what is read as pending.
  struct ROW {
    U32 GapStart, GapLen;
    U32 ReadStart, ReadLen;
  };
  const ROW aRow[] = {
      {0x1001, 3, 0xFFF, 6},   // start down to a multiple of 3, then one more byte for an even length
      {0x1004, 4, 0x1004, 4},  // aligned already
      {0x1002, 4, 0x1000, 6},  // start down to a multiple of 4; even, so nothing added
      {0x1006, 2, 0x1006, 2}, {0x1001, 9, 0x1001, 9},  // longer than 8: as it is
      {0x1001, 1, 0x1001, 1},                          // one byte: as it is
  };
  const U32 Base = 0xFF0, End = 0x1020;
  for (const ROW& Row : aRow) {
    SCOPED_TRACE(testing::Message() << "gap " << std::hex << Row.GapStart << "+" << Row.GapLen);
    P->Invalidate();
    Fill(Base, Row.GapStart - Base);
    Fill(Row.GapStart + Row.GapLen, End - (Row.GapStart + Row.GapLen));
    READER r;
    ASSERT_EQ(P->ReadMemAsync(&r, Base, End - Base), CDeviceDataProvider::READ_LATER);
    std::vector<U8> Expected(End - Base, MS_VALID);
    for (U32 a = Row.ReadStart; a < Row.ReadStart + Row.ReadLen; ++a) {
      Expected[a - Base] = MS_PENDING;
    }
    EXPECT_EQ(Statuses(Base, End - Base), Expected);
    ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
    EXPECT_EQ(r.aMem[0].aData, InitialBytes(Base, End - Base));
    EXPECT_EQ(r.aMem[0].aStatus, std::vector<U8>(End - Base, MS_VALID));
  }
}

TEST_F(DataProvider, AFragmentedRangeIsReadInOneJob) {
  // Gaps of two bytes every sixteen; up to five gaps are read one by one, more make one read of all.
  struct ROW {
    int nGaps;
    U64 nJobs;
    bool WholeRangePending;
  };
  const ROW aRow[] = {{5, 5, false}, {6, 1, true}};
  const U32 Base = 0x1000;
  for (const ROW& Row : aRow) {
    SCOPED_TRACE(testing::Message() << Row.nGaps << " gaps");
    P->Invalidate();
    const U32 End = Base + U32(Row.nGaps) * 16 + 14;
    for (int i = 0; i <= Row.nGaps; ++i) {
      Fill(Base + U32(i) * 16, 14);
    }
    Settle();
    const U64 Started = JobsStarted();
    READER r;
    ASSERT_EQ(P->ReadMemAsync(&r, Base, End - Base), CDeviceDataProvider::READ_LATER);
    EXPECT_EQ(P->PeekMem(Base, 14), Row.WholeRangePending ? MS_PENDING : MS_VALID);
    ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
    EXPECT_EQ(JobsStarted(), Started + Row.nJobs);
    EXPECT_EQ(r.aMem[0].aData, InitialBytes(Base, End - Base));
  }
}

TEST_F(DataProvider, UnreadableBytesComeBackAsErrorsWithZeroData) {
  // Across the hole: every byte is good or failed; the hole's bytes fail, failed bytes read as 0 and
  // good bytes as the target holds them. Which good bytes beside the hole come is the device's matter.
  READER r;
  ASSERT_EQ(P->ReadMemAsync(&r, 0x2F80, 0x200), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
  for (U32 i = 0; i < 0x200; ++i) {
    const U32 Addr = 0x2F80 + i;
    const U8 s = r.aMem[0].aStatus[i];
    ASSERT_TRUE(s == MS_VALID || s == MS_ERROR) << std::hex << Addr;
    if (!IsReadable(Addr)) {
      ASSERT_EQ(s, MS_ERROR) << std::hex << Addr;
    }
    ASSERT_EQ(r.aMem[0].aData[i], s == MS_VALID ? InitialByte(Addr) : 0) << std::hex << Addr;
  }

  // Byte-exact from the mirror: the edge of the hole, read as two ranges, then asked for across it.
  P->Invalidate();
  Fill(0x2F00, 0x100);
  Fill(kHoleStart, 0x10);
  ASSERT_EQ(P->ReadMemAsync(&r, 0x2FF0, 0x20), CDeviceDataProvider::READ_ANSWERED);
  std::vector<U8> ExpectedData = InitialBytes(0x2FF0, 0x10);
  ExpectedData.resize(0x20, 0);
  std::vector<U8> ExpectedStatus(0x10, MS_VALID);
  ExpectedStatus.resize(0x20, MS_ERROR);
  EXPECT_EQ(r.aMem.back().aData, ExpectedData);
  EXPECT_EQ(r.aMem.back().aStatus, ExpectedStatus);

  // Past the end of the address space nothing is read; the answer is all failed, at once.
  const U64 Started = JobsStarted();
  ASSERT_EQ(P->ReadMemAsync(&r, 0xFFFFFFF0, 0x20), CDeviceDataProvider::READ_ANSWERED);
  EXPECT_EQ(r.aMem.back().aStatus, std::vector<U8>(0x20, MS_ERROR));
  EXPECT_EQ(r.aMem.back().aData, std::vector<U8>(0x20, 0));
  U8 ac[4] = {1, 1, 1, 1};
  EXPECT_EQ(P->ReadMemSync(0xFFFFFFFE, 4, 0, ac), 1);
  EXPECT_EQ(JobsStarted(), Started);
}

TEST_F(DataProvider, FlushDropsWaitingMemoryRequestsAndCancelsTheirReads) {
  READER r;
  const U32 Reg = 2;
  HoldDeviceThread();
  ASSERT_EQ(P->ReadMemAsync(&r, 0x1000, 16), CDeviceDataProvider::READ_LATER);
  ASSERT_EQ(P->ReadMemAsync(&r, 0x2000, 16), CDeviceDataProvider::READ_LATER);
  ASSERT_EQ(P->ReadRegsAsync(&r, 1, &Reg), CDeviceDataProvider::READ_LATER);
  EXPECT_EQ(P->FlushRequests(), 2);
  EXPECT_EQ(P->PeekMem(0x1000, 16), MS_UNKNOWN);
  EXPECT_EQ(P->PeekMem(0x2000, 16), MS_UNKNOWN);
  EXPECT_EQ(P->GetNumWaitingRequests(), 1);  // the register request stays
  Fake().Release();
  ASSERT_TRUE(PumpUntil([&] { return r.aReg.size() == 1; }));
  Settle();
  EXPECT_TRUE(r.aMem.empty());
  EXPECT_EQ(r.aReg[0], std::make_pair(Reg, I64(0x1002)));
  EXPECT_EQ(Memory().nReadsOfFlushedRanges.load(), 0);  // the probe was never asked for them
  // The flushed range is read normally when asked for again.
  Fill(0x1000, 16);
}

TEST_F(DataProvider, TheMirrorIsEmptiedWhenTheTargetMayHaveChanged) {
  const U8 aNew[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  struct ROW {
    const char* sName;
    std::function<void()> Deliver;
    bool Empties;
  };
  const ROW aRow[] = {
      {"halt", [&] { pDevice->ReportJobDone(JT_HALT, JOB_STATUS_DONE, HR_HALT, pDevice->GetPC(), 0); }, true},
      {"resume", [&] { pDevice->ReportJobDone(JT_CONTINUE, JOB_STATUS_DONE, GO_USER, 0, 0); }, true},
      {"reset",
       [&] { pDevice->ReportJobDone(JT_RESET, JOB_STATUS_DONE, RM_RESET_HALT, pDevice->GetPC(), 0); }, true},
      {"step", [&] { pDevice->ReportJobDone(JT_STEP_INST, JOB_STATUS_DONE, 0, pDevice->GetPC(), 0); }, true},
      {"connect", [&] { pDevice->ReportJobDone(JT_CONNECT, JOB_STATUS_DONE, CM_ATTACH, 0, 0); }, true},
      {"disconnect", [&] { pDevice->ReportJobDone(JT_DISCONNECT, JOB_STATUS_DONE, 0, 0, 0); }, true},
      {"target state reset",
       [&] { pDevice->ReportJobDone(JT_RESET_TARGET_EXEC_STATE, JOB_STATUS_DONE, 0, 0, 0); }, true},
      {"register write", [&] { pDevice->ReportJobDone(JT_WRITE_REG, JOB_STATUS_DONE, 3, 0, 0); }, true},
      {"memory write",
       [&] {
         ASSERT_EQ(pDevice->ScheduleWriteMem(0x4000, 4, aNew), 0);
         ASSERT_GE(pDevice->WaitForJob(JT_WRITE_MEM, false), 0);
       },
       true},
      {"breakpoint condition", [&] { PostDeviceEvent(DEV_EVENT_EVAL_BP_CONDITION, 0x100, 0); }, true},
      {"endianness", [&] { PostDeviceEvent(DEV_EVENT_ENDIANESS_CHANGED, 1, 1); }, true},
      {"breakpoints cleared", [&] { pDevice->ReportJobDone(JT_CLEAR_ALL_BPS, JOB_STATUS_DONE, 0, 0, 0); },
       false},
      {"progress", [&] { PostDeviceEvent(DEV_EVENT_PROGRESS_VALUE, 5, 0); }, false},
  };
  for (const ROW& Row : aRow) {
    SCOPED_TRACE(Row.sName);
    P->Invalidate();
    Fill(0x1000, 16);
    U32 Value = 0;
    ASSERT_EQ(P->ReadRegSync(3, &Value), 0);
    ASSERT_EQ(Value, 0x1003u);
    Row.Deliver();
    DispatchDeviceEvents(100);
    const U8 Expected = Row.Empties ? MS_UNKNOWN : MS_VALID;
    EXPECT_EQ(P->PeekMem(0x1000, 16), Expected);
    EXPECT_EQ(P->PeekReg(3), Expected);
  }
  // After the write, a reader gets the new bytes.
  READER r;
  ASSERT_EQ(P->ReadMemAsync(&r, 0x4000, 4), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
  EXPECT_EQ(r.aMem[0].aData, std::vector<U8>(aNew, aNew + 4));
}

TEST_F(DataProvider, SyncReadsGiveUpAfter150msWithAWarningAndTheDataStillLands) {
  const ARM_CPR Cpr = {15, 1, 0, 0, 0};
  U8 ac[8];
  U32 v;
  struct ROW {
    const char* sWarning;
    std::function<int()> Read;
    std::function<U8()> Status;
  };
  const ROW aRow[] = {
      {"[W] Timeout while waiting for memory data arrival", [&] { return P->ReadMemSync(0x1000, 8, 0, ac); },
       [&] { return P->PeekMem(0x1000, 8); }},
      {"[W] Timeout while waiting for register data arrival", [&] { return P->ReadRegSync(4, &v); },
       [&] { return P->PeekReg(4); }},
      {"[W] Timeout while waiting for coprocessor register data arrival",
       [&] { return P->ReadCPRSync(&Cpr, &v); }, [&] { return P->PeekCPR(&Cpr); }},
  };
  for (const ROW& Row : aRow) {
    SCOPED_TRACE(Row.sWarning);
    QTemporaryDir Dir;
    GetLogSink().OpenFile(Dir.filePath("sync.log"));
    GetLogSink().SetInterval(0);
    HoldDeviceThread();
    const auto Start = std::chrono::steady_clock::now();
    EXPECT_EQ(Row.Read(), 1);
    const auto ElapsedMS =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - Start)
            .count();
    EXPECT_GE(ElapsedMS, 150);
    EXPECT_LT(ElapsedMS, 2000);
    GetLogSink().Flush();
    QFile Log(Dir.filePath("sync.log"));
    ASSERT_TRUE(Log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(Log.readAll().contains(Row.sWarning));
    GetLogSink().OpenFile(QString());
    Fake().Release();
    EXPECT_TRUE(PumpUntil([&] { return Row.Status() <= MS_ERROR; }));
  }
  // With the device free the answers come in time.
  EXPECT_EQ(P->ReadMemSync(0x1000, 8, 0, ac), 0);
  EXPECT_EQ(std::vector<U8>(ac, ac + 8), InitialBytes(0x1000, 8));
  EXPECT_EQ(P->ReadRegSync(4, &v), 0);
  EXPECT_EQ(v, 0x1004u);
  EXPECT_EQ(P->ReadMemSync(0x2000, 8, 0, ac), 0);
  EXPECT_EQ(std::vector<U8>(ac, ac + 8), InitialBytes(0x2000, 8));
}

TEST_F(DataProvider, RegistersComeFromTheMirrorAndFailedOnesAreNegative) {
  READER r;
  const U32 aIdx[] = {1, kFailingReg, 2};
  ASSERT_EQ(P->ReadRegsAsync(&r, 3, aIdx), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.nRegsAnswers == 1; }));
  const std::vector<std::pair<U32, I64>> Expected = {{1, 0x1001}, {kFailingReg, -1}, {2, 0x1002}};
  EXPECT_EQ(r.aReg, Expected);

  Settle();
  const U64 Started = JobsStarted();
  r.aReg.clear();
  ASSERT_EQ(P->ReadRegsAsync(&r, 3, aIdx), CDeviceDataProvider::READ_ANSWERED);
  EXPECT_EQ(r.aReg, Expected);
  r.aReg.clear();
  ASSERT_EQ(P->ReadRegsAsync(&r, 1, &aIdx[1]), CDeviceDataProvider::READ_ANSWERED);
  const std::vector<std::pair<U32, I64>> ExpectedFailed = {{kFailingReg, -1}};
  EXPECT_EQ(r.aReg, ExpectedFailed);
  U32 v = 0;
  EXPECT_EQ(P->ReadRegSync(kFailingReg, &v), 1);
  EXPECT_EQ(P->PeekReg(kFailingReg), MS_ERROR);
  EXPECT_EQ(JobsStarted(), Started);

  // A coprocessor selector outside the table is failed at once.
  const ARM_CPR aBadCpr[] = {{14, 0, 0, 0, 0}, {15, 16, 0, 0, 0}, {15, 0, 0, 8, 0}};
  for (const ARM_CPR& Cpr : aBadCpr) {
    ASSERT_EQ(P->ReadCPRAsync(&r, &Cpr), CDeviceDataProvider::READ_ANSWERED);
    EXPECT_EQ(r.aCPR.back(), -1);
  }
  EXPECT_EQ(JobsStarted(), Started);
}

TEST_F(DataProvider, ATargetStateSetFromOutsideFillsTheRegisters) {
  // What the decoding of a finished state change tells every listener: the values, then a reset.
  I64 aVal[18];
  for (int i = 0; i < 18; ++i) {
    aVal[i] = 0x5000 + i;
  }
  aVal[5] = -1;
  Fill(0x1000, 4);
  P->OnDeviceSetTargetExecStateDone(18, aVal);
  P->OnDeviceResetDone(0x5000 + 15, RM_STATE_SET);
  const U64 Started = JobsStarted();
  for (U32 i = 0; i < 18; ++i) {
    U32 v = 0;
    EXPECT_EQ(P->ReadRegSync(i, &v), i == 5 ? 1 : 0) << i;
    if (i != 5) {
      EXPECT_EQ(v, 0x5000 + i) << i;
    }
  }
  EXPECT_EQ(P->PeekReg(5), MS_ERROR);
  EXPECT_EQ(P->PeekMem(0x1000, 4), MS_UNKNOWN);  // memory of the old state is gone
  EXPECT_EQ(JobsStarted(), Started);
}

TEST_F(DataProvider, AListenerThatWentAwayIsNotCalled) {
  struct FORGETFUL : CDeviceEventListener {
    int* pCalls;
    explicit FORGETFUL(int* p) : pCalls(p) {}
    void OnDeviceReadMemDone(U32, U32, U8*, U8*) override { ++*pCalls; }
  };
  int nCalls = 0;
  auto* pGone = new FORGETFUL(&nCalls);
  ASSERT_EQ(P->ReadMemAsync(pGone, 0x1000, 16), CDeviceDataProvider::READ_LATER);
  delete pGone;  // without cancelling its request
  READER r;
  ASSERT_EQ(P->ReadMemAsync(&r, 0x1000, 16), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.aMem.size() == 1; }));
  EXPECT_EQ(nCalls, 0);
  EXPECT_EQ(P->GetNumWaitingRequests(), 0);
}

// Locations through the read cache: answered from the mirror when it holds them (also when a memory read
// filled it), read by one job otherwise, unreadable ones as failed, and read anew after a write.
TEST_F(DataProvider, LocationsAreAnsweredFromTheMirrorOrByOneJob) {
  LOC_RECORDER a, b;
  const ELF_SYM_LOC Word = MemLoc(0x1000);
  ASSERT_EQ(P->ReadLocAsync(&a, &Word, 4), CDeviceDataProvider::READ_LATER);
  ASSERT_EQ(P->ReadLocAsync(&b, &Word, 4), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return a.aRead.size() == 1 && b.aRead.size() == 1; }));
  EXPECT_EQ(a.aRead[0].aData, InitialBytes(0x1000, 4));
  EXPECT_EQ(b.aRead[0].aData, InitialBytes(0x1000, 4));
  Fill(0x2000, 16);
  const U64 Started = JobsStarted();
  const ELF_SYM_LOC Inside = MemLoc(0x2004, ELF_LOC_ADDR_OFFSET, 12);
  const ELF_SYM_LOC Constant = ConstLoc(0xCAFE);
  const struct {
    const char* sWhat;
    const ELF_SYM_LOC* pLoc;
    U32 nBytes;
    std::vector<U8> aExpected;
  } aAtOnce[] = {
      {"the same word again", &Word, 4, InitialBytes(0x1000, 4)},
      {"a location a memory read brought in", &Inside, 8, InitialBytes(0x2004, 8)},
      {"a constant", &Constant, 2, {0xFE, 0xCA}},
  };
  for (const auto& c : aAtOnce) {
    SCOPED_TRACE(c.sWhat);
    LOC_RECORDER r;
    ASSERT_EQ(P->ReadLocAsync(&r, c.pLoc, c.nBytes), CDeviceDataProvider::READ_ANSWERED);
    ASSERT_EQ(r.aRead.size(), 1u);
    EXPECT_EQ(r.aRead[0].aData, c.aExpected);
  }
  Settle();
  EXPECT_EQ(JobsStarted(), Started + 1);  // only the settling marker went to the target

  // A register location reads the register once; a location in the hole fails, also synchronously.
  const ELF_SYM_LOC Reg = RegLoc(5);
  const ELF_SYM_LOC Hole = MemLoc(kHoleStart + 4);
  LOC_RECORDER r;
  ASSERT_EQ(P->ReadLocAsync(&r, &Reg, 4), CDeviceDataProvider::READ_LATER);
  ASSERT_EQ(P->ReadLocAsync(&r, &Hole, 2), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.aRead.size() == 2; }));
  EXPECT_EQ(r.aRead[0].aData, std::vector<U8>({0x05, 0x10, 0x00, 0x00}));  // RegValue(5) = 0x1005
  EXPECT_FALSE(r.aRead[1].Done);
  EXPECT_EQ(P->ReadLocAsync(&r, &Reg, 2), CDeviceDataProvider::READ_ANSWERED);
  EXPECT_EQ(r.aRead.back().aData, std::vector<U8>({0x05, 0x10}));
  U8 ac[4] = {1, 1, 1, 1};
  EXPECT_EQ(P->ReadLocSync(&Hole, 4, ac), 1);
  EXPECT_EQ(std::vector<U8>(ac, ac + 4), std::vector<U8>(4, 0));

  // A write by location reaches the target and empties the mirror: the next read sees the new bytes.
  const U8 aNew[4] = {1, 2, 3, 4};
  ASSERT_EQ(pDevice->ScheduleWriteLoc(Word, 4, aNew), 0);
  ASSERT_TRUE(PumpUntil([&] { return r.aWrite.size() == 1; }));
  EXPECT_TRUE(r.aWrite[0]);
  EXPECT_EQ(std::vector<U8>(Memory().aByte + 0x1000, Memory().aByte + 0x1004),
            std::vector<U8>(aNew, aNew + 4));
  ASSERT_EQ(P->ReadLocAsync(&r, &Word, 4), CDeviceDataProvider::READ_LATER);
  ASSERT_TRUE(PumpUntil([&] { return r.aRead.size() == 4; }));
  EXPECT_EQ(r.aRead.back().aData, std::vector<U8>(aNew, aNew + 4));

  // Bad arguments change nothing.
  EXPECT_EQ(P->ReadLocAsync(nullptr, &Word, 4), CDeviceDataProvider::READ_BAD_ARGS);
  EXPECT_EQ(P->ReadLocAsync(&r, nullptr, 4), CDeviceDataProvider::READ_BAD_ARGS);
  EXPECT_EQ(P->ReadLocAsync(&r, &Word, 0), CDeviceDataProvider::READ_BAD_ARGS);
  EXPECT_EQ(P->ReadLocAsync(&r, &Word, 9), CDeviceDataProvider::READ_BAD_ARGS);
  EXPECT_EQ(pDevice->ScheduleReadLoc(Word, 9), -1);
  EXPECT_EQ(pDevice->ScheduleWriteLoc(Word, 0, aNew), -1);
}

// A command's read is one job that a step does not cancel, waited for with the event loop running; when
// the device never gets to it, it gives up at the read job's limit and a late answer goes nowhere.
TEST_F(DataProvider, ACommandReadSurvivesAStepAndGivesUpAtTheReadLimit) {
  HoldDeviceThread();
  READER Window;
  ASSERT_EQ(P->ReadMemAsync(&Window, 0x1000, 16), CDeviceDataProvider::READ_LATER);
  // Run by the event loop while the command waits: a step, which cancels the queued reads.
  QTimer::singleShot(0, [this] {
    pDevice->ScheduleStepInst();
    Fake().Release();
  });
  std::vector<U8> Data(16, 0xAA), Status(16, 0xAA);
  EXPECT_EQ(P->ReadMemWait(0x1000, 16, 0, 0, 0, Data.data(), Status.data()), 0);
  EXPECT_EQ(Data, InitialBytes(0x1000, 16));
  EXPECT_EQ(Status, std::vector<U8>(16, 0));
  EXPECT_EQ(Fake().nStep.load(), 1);
  EXPECT_TRUE(Window.aMem.empty());  // the window's read was cancelled by the step

  HoldDeviceThread();
  QElapsedTimer Timer;
  Timer.start();
  EXPECT_EQ(P->ReadMemWait(0x2000, 16, 0, 0, 0, Data.data(), Status.data()), -1);
  const qint64 WaitedMS = Timer.elapsed();
  EXPECT_GE(WaitedMS, JobTypeToTimeoutMS(JT_READ_MEM));
  EXPECT_LT(WaitedMS, JobTypeToTimeoutMS(JT_READ_MEM) + 2000);
  EXPECT_EQ(Status, std::vector<U8>(16, 1));
  std::fill(Data.begin(), Data.end(), U8(0xAA));
  Fake().Release();
  Settle();
  EXPECT_EQ(Data, std::vector<U8>(16, 0xAA));
}
