// A small scripted probe for the job queue tests: a target that halts, steps and resets on request,
// counts the calls that matter, and can hold the device thread inside a command until released.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "device/probe/TarvikApi.h"

struct FAKE_PROBE {
  std::atomic<bool> Open{false};
  std::atomic<int> Halted{1};
  std::atomic<U32> PC{0x100};
  std::atomic<int> nHalt{0};
  std::atomic<int> nStep{0};
  std::atomic<int> nReset{0};
  std::atomic<int> nExec{0};
  std::atomic<int> nReadReg{0};
  std::atomic<int> nWriteReg{0};
  std::atomic<int> IsHaltedResult{-2};  // -2: report Halted; other values are returned as they are
  // While Holding is set, ExecCommand("hold") waits until it is cleared; Entered tells that it waits.
  std::mutex Mutex;
  std::condition_variable Cv;
  bool Holding = false;
  bool Entered = false;

  void Hold() {
    std::lock_guard<std::mutex> Lock(Mutex);
    Holding = true;
    Entered = false;
  }
  void Release() {
    std::lock_guard<std::mutex> Lock(Mutex);
    Holding = false;
    Cv.notify_all();
  }
  bool WaitEntered(int TimeoutMS) {
    std::unique_lock<std::mutex> Lock(Mutex);
    return Cv.wait_for(Lock, std::chrono::milliseconds(TimeoutMS), [this] { return Entered; });
  }
};

inline FAKE_PROBE& Fake() {
  static FAKE_PROBE State;
  return State;
}

inline void ResetFake() {
  FAKE_PROBE& f = Fake();
  f.Open = false;
  f.Halted = 1;
  f.PC = 0x100;
  f.nHalt = f.nStep = f.nReset = f.nExec = f.nReadReg = f.nWriteReg = 0;
  f.IsHaltedResult = -2;
  f.Release();
}

inline const TARVIK_API& FakeProbeApi() {
  static TARVIK_API Api = [] {
    TARVIK_API a = TARVIK_GetAbsentApi();
    a.TARVIKARM_Open = []() -> const char* {
      Fake().Open = true;
      return nullptr;
    };
    a.TARVIKARM_Close = []() { Fake().Open = false; };
    a.TARVIKARM_Connect = []() -> int { return 0; };
    a.TARVIKARM_SelectUSB = [](int) -> int { return 0; };
    a.TARVIKARM_IsOpen = []() -> U8 { return Fake().Open ? 1 : 0; };
    a.TARVIKARM_IsConnected = []() -> U8 { return Fake().Open ? 1 : 0; };
    a.TARVIKARM_GetBPInfoEx = [](int, TARVIK_BP_INFO*) -> int { return 0; };
    a.TARVIKARM_SetSpeed = [](U32) {};
    a.TARVIKARM_GetSpeed = []() -> U16 { return 4000; };
    a.TARVIKARM_ReadRegs = [](const U32* paIdx, U32* paData, U8* paStatus, U32 Cnt) -> int {
      for (U32 i = 0; i < Cnt; ++i) {
        paData[i] = paIdx[i] == 15 ? Fake().PC.load() : 0x1000 + paIdx[i];
        paStatus[i] = 0;
      }
      return 0;
    };
    a.TARVIKARM_IsHalted = []() -> I8 {
      int r = Fake().IsHaltedResult.load();
      return I8(r == -2 ? Fake().Halted.load() : r);
    };
    a.TARVIKARM_Halt = []() -> U8 {
      Fake().nHalt++;
      Fake().Halted = 1;
      return 0;
    };
    a.TARVIKARM_GoEx = [](U32, U32) { Fake().Halted = 0; };
    a.TARVIKARM_Step = []() -> U8 {
      Fake().nStep++;
      Fake().PC += 2;
      return 0;
    };
    a.TARVIKARM_Reset = []() -> int {
      Fake().nReset++;
      Fake().PC = 0x200;
      Fake().Halted = 1;
      return 0;
    };
    a.TARVIKARM_ReadReg = [](U32 Idx) -> U32 {
      Fake().nReadReg++;
      return Idx == 15 ? Fake().PC.load() : 0x1000 + Idx;
    };
    a.TARVIKARM_WriteReg = [](U32 Idx, U32 Value) -> U8 {
      Fake().nWriteReg++;
      if (Idx == 15) {
        Fake().PC = Value;
      }
      return 0;
    };
    a.TARVIKARM_ExecCommand = [](const char* sCmd, char* sOut, int OutSize) -> int {
      FAKE_PROBE& f = Fake();
      f.nExec++;
      if (strcmp(sCmd, "hold") == 0) {
        std::unique_lock<std::mutex> Lock(f.Mutex);
        f.Entered = true;
        f.Cv.notify_all();
        f.Cv.wait(Lock, [&f] { return !f.Holding; });
      }
      if (strcmp(sCmd, "print-lines") == 0) {
        snprintf(sOut, size_t(OutSize), "first line\r\nsecond line\n");
        return 1;  // done, and printed what is in sOut
      }
      if (strncmp(sCmd, "fail", 4) == 0) {
        snprintf(sOut, size_t(OutSize), "unknown command: %s", sCmd);
        return -1;
      }
      sOut[0] = 0;
      return 0;
    };
    return a;
  }();
  return Api;
}
