// A QEMU (qemu-system-arm, mps2-an385 unless told another board) started for one test with a fixture program,
// stopped at reset, its gdb socket a listening socket made here and handed over: no port race, no waiting for
// it to listen.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "app/base/Types.h"
#include "device/probe/tests/SimTestSupport.h"

extern char** environ;

inline bool _HasProgram(const char* sName) {
  const char* sPath = getenv("PATH");
  std::string sAll = sPath ? sPath : "/usr/bin";
  for (size_t p = 0; p <= sAll.size();) {
    size_t e = sAll.find(':', p);
    std::string sDir = sAll.substr(p, e == std::string::npos ? std::string::npos : e - p);
    if (access((sDir + "/" + sName).c_str(), X_OK) == 0) {
      return true;
    }
    if (e == std::string::npos) {
      break;
    }
    p = e + 1;
  }
  return false;
}

// One QEMU with the program loaded and stopped at reset. Its gdb socket is a listening socket made
// here on 127.0.0.1 and handed over, so a connection is queued as soon as QEMU exists: no port race
// and no waiting for QEMU to start listening.
class CQemu {
 public:
  explicit CQemu(const std::string& sProgram, bool Semihosting = false, const char* sMachine = "mps2-an385") {
    int Listen = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in Addr{};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(Listen, reinterpret_cast<sockaddr*>(&Addr), sizeof(Addr));
    socklen_t Len = sizeof(Addr);
    getsockname(Listen, reinterpret_cast<sockaddr*>(&Addr), &Len);
    listen(Listen, 1);
    Port = ntohs(Addr.sin_port);
    std::vector<std::string> as = {"qemu-system-arm",
                                   "-M",
                                   sMachine,
                                   "-nographic",
                                   "-S",
                                   "-monitor",
                                   "none",
                                   "-serial",
                                   "none",
                                   "-chardev",
                                   "socket,id=gdb,server=on,wait=off,nodelay=on,fd=" + std::to_string(Listen),
                                   "-gdb",
                                   "chardev:gdb",
                                   "-kernel",
                                   FixturePath(sProgram, ".elf")};
    if (Semihosting) {
      as.insert(as.end(), {"-semihosting-config", "enable=on,target=gdb"});
    }
    std::vector<char*> apArgs;
    for (std::string& s : as) {
      apArgs.push_back(s.data());
    }
    apArgs.push_back(nullptr);
    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_addopen(&Actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&Actions, 2, "/dev/null", O_WRONLY, 0);
    if (posix_spawnp(&_Pid, "qemu-system-arm", &Actions, nullptr, apArgs.data(), environ) != 0) {
      _Pid = -1;
    }
    posix_spawn_file_actions_destroy(&Actions);
    close(Listen);
  }
  ~CQemu() { Kill(); }
  void Kill() {
    if (_Pid > 0) {
      kill(_Pid, SIGKILL);
      waitpid(_Pid, nullptr, 0);
      _Pid = -1;
    }
  }
  bool IsRunning() const { return _Pid > 0; }
  std::string GetAddress() const { return "127.0.0.1:" + std::to_string(Port); }

  U16 Port = 0;

 private:
  pid_t _Pid = -1;
};
