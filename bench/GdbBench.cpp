// Zevra's gdbserver back-end beside gdb-multiarch, on the same work against the same kind of QEMU
// (qemu-system-arm -M mps2-an385 with basic-O0, a fresh QEMU per measurement): 1,000 word reads,
// 1,000 instruction steps, a 64 KiB download to RAM. Then gdb-multiarch's 1,000 stepi against
// zevra-simserver (basic-O0 in flash) beside the same against QEMU. gdb's times are those of a batch
// run doing the work minus a batch run that only connects and detaches, on the same server.
// Run: build/bench/zevra_gdb_bench
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "device/probe/ProbeCore.h"

extern char** environ;

namespace {

const std::string kElf = std::string(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.elf";
constexpr int kNumReads = 1000, kNumSteps = 1000;
constexpr U32 kDownloadSize = 0x10000, kRAM = 0x20000000;

using CClock = std::chrono::steady_clock;

double _Seconds(CClock::time_point Start) {
  return std::chrono::duration<double>(CClock::now() - Start).count();
}

pid_t _Spawn(std::vector<std::string> as, bool Quiet) {
  std::vector<char*> ap;
  for (std::string& s : as) {
    ap.push_back(s.data());
  }
  ap.push_back(nullptr);
  posix_spawn_file_actions_t Actions;
  posix_spawn_file_actions_init(&Actions);
  posix_spawn_file_actions_addopen(&Actions, 0, "/dev/null", O_RDONLY, 0);
  if (Quiet) {
    posix_spawn_file_actions_addopen(&Actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&Actions, 2, "/dev/null", O_WRONLY, 0);
  }
  pid_t Pid = -1;
  if (posix_spawnp(&Pid, ap[0], &Actions, nullptr, ap.data(), environ) != 0) {
    Pid = -1;
  }
  posix_spawn_file_actions_destroy(&Actions);
  return Pid;
}

// A QEMU stopped at reset, its gdb socket listening on 127.0.0.1 before QEMU starts.
struct QEMU {
  pid_t Pid = -1;
  std::string sAddress;
  QEMU() {
    int Listen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in Addr{};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(Listen, reinterpret_cast<sockaddr*>(&Addr), sizeof(Addr));
    socklen_t Len = sizeof(Addr);
    getsockname(Listen, reinterpret_cast<sockaddr*>(&Addr), &Len);
    listen(Listen, 1);
    sAddress = "127.0.0.1:" + std::to_string(ntohs(Addr.sin_port));
    Pid = _Spawn(
        {"qemu-system-arm", "-M", "mps2-an385", "-nographic", "-S", "-monitor", "none", "-serial", "none",
         "-chardev", "socket,id=gdb,server=on,wait=off,nodelay=on,fd=" + std::to_string(Listen), "-gdb",
         "chardev:gdb", "-kernel", kElf},
        true);
    close(Listen);
  }
  ~QEMU() {
    if (Pid > 0) {
      kill(Pid, SIGKILL);
      waitpid(Pid, nullptr, 0);
    }
  }
};

// zevra-simserver with basic-O0 in flash on a free port, serving one connection.
struct SIM_SERVER {
  pid_t Pid = -1;
  std::string sAddress;
  SIM_SERVER() {
    int aPipe[2];
    if (pipe2(aPipe, O_CLOEXEC) != 0) {
      return;
    }
    std::vector<std::string> as = {std::string(ZEVRA_BINARY_DIR) + "/tools/simserver/zevra-simserver",
                                   "--port",
                                   "0",
                                   "--once",
                                   "--image",
                                   std::string(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.bin"};
    std::vector<char*> ap;
    for (std::string& s : as) {
      ap.push_back(s.data());
    }
    ap.push_back(nullptr);
    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_adddup2(&Actions, aPipe[1], 1);
    posix_spawn_file_actions_addopen(&Actions, 2, "/dev/null", O_WRONLY, 0);
    if (posix_spawn(&Pid, ap[0], &Actions, nullptr, ap.data(), environ) != 0) {
      Pid = -1;
    }
    posix_spawn_file_actions_destroy(&Actions);
    close(aPipe[1]);
    // Its first line: "Listening on 127.0.0.1:PORT".
    std::string sLine;
    char c;
    while (Pid > 0 && read(aPipe[0], &c, 1) == 1 && c != '\n') {
      sLine += c;
    }
    close(aPipe[0]);
    size_t p = sLine.find("Listening on ");
    if (p != std::string::npos) {
      sAddress = sLine.substr(p + 13);
    }
  }
  ~SIM_SERVER() {
    if (Pid > 0) {
      kill(Pid, SIGKILL);
      waitpid(Pid, nullptr, 0);
    }
  }
};

// Seconds of one gdb-multiarch batch run with the given command script; negative on failure.
template <typename SERVER = QEMU>
double _GdbRun(const std::string& sCommands) {
  SERVER Server;
  if (Server.sAddress.empty()) {
    return -1;
  }
  std::string sScript = "/tmp/zevra_gdb_bench_" + std::to_string(getpid()) + ".gdb";
  std::ofstream(sScript) << "target remote " << Server.sAddress << "\n" << sCommands << "detach\n";
  std::vector<std::string> as = {"gdb-multiarch", "-batch", "-nx", "-x", sScript, kElf};
  auto Start = CClock::now();
  pid_t Pid = _Spawn(as, true);
  int Status = 0;
  if (Pid < 0 || waitpid(Pid, &Status, 0) != Pid || !WIFEXITED(Status) || WEXITSTATUS(Status) != 0) {
    unlink(sScript.c_str());
    return -1;
  }
  unlink(sScript.c_str());
  return _Seconds(Start);
}

struct ZEVRA_TIMES {
  double Reads = -1, Steps = -1, Download = -1;
};

ZEVRA_TIMES _ZevraRun() {
  ZEVRA_TIMES T;
  QEMU Qemu;
  PROBE_ResetLayer();
  if (TARVIKARM_SelectIP(Qemu.sAddress.c_str(), 0) != 0 || TARVIKARM_Open() != nullptr ||
      TARVIKARM_Connect() != 0) {
    fprintf(stderr, "Zevra could not connect to QEMU at %s\n", Qemu.sAddress.c_str());
    return T;
  }
  auto Start = CClock::now();
  for (int i = 0; i < kNumReads; i++) {
    U32 v;
    if (TARVIKARM_ReadMemEx(kRAM + U32(i % 64) * 4, 4, &v, 4) != 4) {
      return T;
    }
  }
  T.Reads = _Seconds(Start);
  // A step and the PC after it, as a debugger shows it.
  Start = CClock::now();
  for (int i = 0; i < kNumSteps; i++) {
    if (TARVIKARM_Step() != 0) {
      return T;
    }
    TARVIKARM_ReadReg(15);
  }
  T.Steps = _Seconds(Start);
  std::vector<U8> aData(kDownloadSize);
  for (size_t i = 0; i < aData.size(); i++) {
    aData[i] = U8(i * 31 + 7);
  }
  Start = CClock::now();
  TARVIKARM_BeginDownload(0);
  if (TARVIKARM_WriteMemEx(kRAM, kDownloadSize, aData.data(), 0) == int(kDownloadSize) &&
      TARVIKARM_EndDownload() == 0) {
    T.Download = _Seconds(Start);
  }
  PROBE_ResetLayer();
  return T;
}

}  // namespace

int main() {
  ZEVRA_TIMES Z = _ZevraRun();
  std::string sFile = "/tmp/zevra_gdb_bench_" + std::to_string(getpid()) + ".bin";
  {
    std::vector<char> a(kDownloadSize);
    for (size_t i = 0; i < a.size(); i++) {
      a[i] = char(i * 31 + 7);
    }
    std::ofstream(sFile, std::ios::binary).write(a.data(), long(a.size()));
  }
  double Base = _GdbRun("");
  double Reads = _GdbRun("set $i = 0\nwhile $i < " + std::to_string(kNumReads) +
                         "\n  set $v = *(volatile unsigned int *)(0x20000000 + ($i % 64) * 4)\n"
                         "  set $i = $i + 1\nend\n");
  double Steps = _GdbRun("stepi " + std::to_string(kNumSteps) + "\n");
  double Download = _GdbRun("restore " + sFile + " binary 0x20000000\n");
  unlink(sFile.c_str());
  auto Print = [](const char* sWork, double Zevra, double Gdb, double Base) {
    char acGdb[32] = "failed", acZevra[32] = "failed";
    if (Zevra >= 0) {
      snprintf(acZevra, sizeof(acZevra), "%8.1f ms", Zevra * 1000);
    }
    if (Gdb >= 0 && Base >= 0) {
      snprintf(acGdb, sizeof(acGdb), "%8.1f ms", (Gdb - Base) * 1000);
    }
    printf("%-26s %14s %16s\n", sWork, acZevra, acGdb);
  };
  printf("%-26s %14s %16s\n", "Work against QEMU", "Zevra", "gdb-multiarch");
  Print("1,000 word reads", Z.Reads, Reads, Base);
  Print("1,000 instruction steps", Z.Steps, Steps, Base);
  Print("64 KiB download to RAM", Z.Download, Download, Base);
  printf("(gdb-multiarch: batch run minus a run that only connects and detaches, %.1f ms)\n", Base * 1000);
  // gdb-multiarch's own stepping against the two servers, in the same run.
  std::string sSteps = "stepi " + std::to_string(kNumSteps) + "\n";
  double SimBase = _GdbRun<SIM_SERVER>("");
  double SimSteps = _GdbRun<SIM_SERVER>(sSteps);
  double QemuSteps = _GdbRun(sSteps);
  printf("\n%-26s %14s %16s\n", "gdb-multiarch stepi", "QEMU", "zevra-simserver");
  char acQemu[32] = "failed", acSim[32] = "failed";
  double QemuRate = -1, SimRate = -1;
  if (QemuSteps >= 0 && Base >= 0 && QemuSteps > Base) {
    QemuRate = kNumSteps / (QemuSteps - Base);
    snprintf(acQemu, sizeof(acQemu), "%8.0f /s", QemuRate);
  }
  if (SimSteps >= 0 && SimBase >= 0 && SimSteps > SimBase) {
    SimRate = kNumSteps / (SimSteps - SimBase);
    snprintf(acSim, sizeof(acSim), "%8.0f /s", SimRate);
  }
  printf("%-26s %14s %16s\n", "1,000 stepi", acQemu, acSim);
  if (QemuRate > 0 && SimRate > 0) {
    printf("zevra-simserver steps at %.2fx QEMU's rate\n", SimRate / QemuRate);
  }
  return 0;
}
