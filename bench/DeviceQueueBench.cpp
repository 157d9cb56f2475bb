// Memory and register access through the device job queue on the simulated target, printed beside the
// same work done by direct calls of the probe layer in the same process: what the queue, the device
// thread and the event path cost. Run: build/bench/zevra_device_bench
#include <QCoreApplication>
#include <chrono>
#include <cstdio>
#include <vector>

#include "device/Device.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point Start) {
  return std::chrono::duration<double>(Clock::now() - Start).count();
}

// Hears every completion so that a round trip ends where a window would see it.
struct COUNTER : CDeviceEventListener {
  int nWrites = 0;
  void OnDeviceWriteMemDone(U32, U32, U8*) override { ++nWrites; }
};

void DrainUntil(CDevice* pDevice, U32 Type) {
  while (pDevice->IsJobPending(Type) || !IsDeviceEventQueueEmpty()) {
    DispatchDeviceEvents(10);
  }
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  SetTarvikApi(&TARVIK_GetProbeLayerApi());
  CDevice* pDevice = CDevice::Instance();
  COUNTER Counter;
  pDevice->ScheduleConnect(CM_ATTACH_HALT);
  pDevice->WaitForJob(JT_CONNECT, false, 10000);
  while (!pDevice->IsHaltCertain()) {
    DispatchDeviceEvents(10);
  }
  const U32 kBlock = 64 * 1024;
  const U32 kSRAM = 0x20000000;
  const int kBlocks = 256;  // 16 MiB each way
  std::vector<U8> Data(kBlock, 0x5A), Status(kBlock);

  Clock::time_point Start = Clock::now();
  for (int i = 0; i < kBlocks; ++i) {
    pDevice->ScheduleWriteMem(kSRAM + U32(i % 3) * kBlock, kBlock, Data.data());
  }
  DrainUntil(pDevice, JT_WRITE_MEM);
  double QueueWrite = Seconds(Start);
  Start = Clock::now();
  for (int i = 0; i < kBlocks; ++i) {
    TARVIKARM_WriteMemEx(kSRAM + U32(i % 3) * kBlock, kBlock, Data.data(), 0);
  }
  double DirectWrite = Seconds(Start);

  Start = Clock::now();
  for (int i = 0; i < kBlocks; ++i) {
    pDevice->ScheduleReadMem(kSRAM + U32(i % 3) * kBlock, kBlock);
  }
  DrainUntil(pDevice, JT_READ_MEM);
  double QueueRead = Seconds(Start);
  Start = Clock::now();
  for (int i = 0; i < kBlocks; ++i) {
    TARVIKARM_ReadMemEx(kSRAM + U32(i % 3) * kBlock, kBlock, Data.data(), 0);
  }
  double DirectRead = Seconds(Start);

  const int kRegReads = 2000;
  Start = Clock::now();
  for (int i = 0; i < kRegReads; ++i) {
    pDevice->ScheduleReadReg(U32(i % 16));
    DrainUntil(pDevice, JT_READ_REG);
  }
  double QueueReg = Seconds(Start) / kRegReads;
  Start = Clock::now();
  for (int i = 0; i < kRegReads; ++i) {
    TARVIKARM_ReadReg(U32(i % 16));
  }
  double DirectReg = Seconds(Start) / kRegReads;

  const double MiB = double(kBlocks) * kBlock / (1024.0 * 1024.0);
  printf("%-36s %14s %14s\n", "simulated Cortex-M4, SRAM", "job queue", "direct call");
  printf("%-36s %11.1f MB/s %11.1f MB/s\n", "memory write, 64 KiB blocks", MiB / QueueWrite,
         MiB / DirectWrite);
  printf("%-36s %11.1f MB/s %11.1f MB/s\n", "memory read, 64 KiB blocks", MiB / QueueRead, MiB / DirectRead);
  printf("%-36s %12.0f ns %12.0f ns\n", "one register read, round trip", QueueReg * 1e9, DirectReg * 1e9);
  printf("(%d write completions heard)\n", Counter.nWrites);
  pDevice->RequestStop();
  pDevice->wait();
  return 0;
}
