// Waiting for the device: a waiter sleeps while a slow gdbserver takes its time, and a connect is
// complete only when the target state is known, so the command right after it finds a halted target.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "device/Device.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/tests/QemuProcess.h"
#include "device/tests/ProbeLayerDevice.h"
#include "device/tests/PumpUntil.h"
#include "device/tests/SlowGdbServer.h"

namespace {

// The processor time of the whole process (every thread) and the wall time over one wait.
class CCpuShare {
 public:
  CCpuShare() : _Cpu(_CpuSeconds()), _Wall(std::chrono::steady_clock::now()) {}
  double WallSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - _Wall).count();
  }
  double Share() const { return (_CpuSeconds() - _Cpu) / WallSeconds(); }

 private:
  static double _CpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
  }
  double _Cpu;
  std::chrono::steady_clock::time_point _Wall;
};

class DeviceWait : public CProbeLayerDeviceTest {
 protected:
  // A connect and, right after it, a read as Target.ReadU32 makes one; then a disconnect.
  void ConnectReadDisconnect(int Run, U32 Addr, U32 Expected) {
    SCOPED_TRACE(Run);
    ASSERT_EQ(pDevice->ScheduleConnect(CM_BARE), 0);
    ASSERT_GE(pDevice->WaitForJob(JT_CONNECT, false), 0);  // 1: it had finished already
    ASSERT_TRUE(pDevice->IsConnected());
    EXPECT_TRUE(pDevice->IsHaltCertain());
    EXPECT_TRUE(pDevice->CanAccessMemory());
    U32 Word = 0;
    EXPECT_EQ(pDevice->ReadWord(Addr, &Word), 0);
    EXPECT_EQ(Word, Expected);
    ASSERT_EQ(pDevice->ScheduleDisconnect(), 0);
    ASSERT_GE(pDevice->WaitForJob(JT_DISCONNECT, false), 0);
    EXPECT_FALSE(pDevice->IsConnected());
    DispatchDeviceEvents(int(kEventRingSize));
  }
};

}  // namespace

TEST_F(DeviceWait, WaiterSleepsWhileTheGdbserverTakesItsTime) {
  SLOW_SERVER Slow;
  CFakeGdbServer Server([&Slow](const std::string& s) { return Slow.Handle(s); });
  UseGdbServer(Server.GetAddress());
  ASSERT_GE(pDevice->WaitForJob(JT_SET_CONFIG_PARAM, false), 0);
  struct CASE {
    const char* sWhat;
    char SlowPacket;
    U32 Type;
    std::function<int()> Schedule;
  } aCase[] = {
      {"connect", 'g', JT_CONNECT, [&] { return pDevice->ScheduleConnect(CM_BARE); }},
      {"memory read", 'm', JT_READ_MEM, [&] { return pDevice->ScheduleReadMem(0x20000000, 4); }},
      {"register read", 'p', JT_READ_REG, [&] { return pDevice->ScheduleReadReg(0); }},
  };
  for (const CASE& c : aCase) {
    SCOPED_TRACE(c.sWhat);
    if (c.Type == JT_READ_REG) {
      // Registers are read one by one from now on; writing one drops the block read at the connect.
      Slow.UnreadableBlock = true;
      ASSERT_EQ(pDevice->ScheduleWriteReg(0, 0x1000), 0);
      ASSERT_GE(pDevice->WaitForJob(JT_WRITE_REG, true), 0);  // 1: it had finished already
    }
    Slow.SlowPacket = c.SlowPacket;
    CCpuShare Cpu;
    ASSERT_EQ(c.Schedule(), 0);
    EXPECT_EQ(pDevice->WaitForJob(c.Type, true), 0);
    EXPECT_GE(Cpu.WallSeconds(), kServerDelayMS / 1000.0);  // the server's delay was part of the wait
    EXPECT_LE(Cpu.Share(), kMaxCpuShare) << "over " << Cpu.WallSeconds() << " s";
    Slow.SlowPacket = 0;
    EXPECT_TRUE(pDevice->IsHaltCertain());
  }
  EXPECT_GE(Server.CountReceived("p0"), 1);
}

TEST_F(DeviceWait, ConnectedSimulatorIsHaltedForTheNextCommandEveryTime) {
  // The simulator's SRAM starts cleared.
  for (int Run = 0; Run < 200; ++Run) {
    ConnectReadDisconnect(Run, 0x20000000, 0);
    if (HasFailure()) {
      break;
    }
  }
}

TEST_F(DeviceWait, ConnectedQemuIsHaltedForTheNextCommandEveryTime) {
  if (!_HasProgram("qemu-system-arm")) {
    GTEST_SKIP() << "qemu-system-arm is not installed";
  }
  CQemu Qemu("basic-O0");
  std::vector<U8> Image = LoadFile(FixturePath("basic-O0", ".bin"));
  ASSERT_GE(Image.size(), 4u);
  const U32 InitialSP = U32(Image[0] | Image[1] << 8 | Image[2] << 16 | U32(Image[3]) << 24);
  UseGdbServer(Qemu.GetAddress());
  // QEMU stops the program whenever a debugger attaches, and lets it run on when it detaches.
  for (int Run = 0; Run < 200; ++Run) {
    ConnectReadDisconnect(Run, 0, InitialSP);
    if (HasFailure()) {
      break;
    }
  }
}
