// The table in force and the "absent" table that stands in while no probe layer is installed.
#include "device/probe/TarvikApi.h"

#include <atomic>

namespace {

// Failure value by return type. U8 results mean "non-zero on failure" for the commands that return
// one, and "false" for the two queries; those queries are overridden below.
template <typename R>
R _FailValue() {
  if constexpr (std::is_same_v<R, const char*>) {
    return "no probe layer installed";
  } else if constexpr (std::is_same_v<R, U8>) {
    return 1;
  } else if constexpr (std::is_pointer_v<R>) {
    return nullptr;
  } else if constexpr (std::is_signed_v<R>) {
    return R(-1);
  } else {
    return R(0);
  }
}

template <typename T>
struct _Absent;
template <typename R, typename... A>
struct _Absent<R (*)(A...)> {
  static R Call(A...) {
    if constexpr (!std::is_void_v<R>) {
      return _FailValue<R>();
    }
  }
};

TARVIK_API _MakeAbsentApi() {
  TARVIK_API Api{};
#define TARVIK_API_ABSENT(Ret, Name, Params) Api.Name = &_Absent<decltype(Api.Name)>::Call;
  TARVIK_API_LIST(TARVIK_API_ABSENT)
#undef TARVIK_API_ABSENT
  Api.TARVIKARM_IsOpen = []() -> U8 { return 0; };
  Api.TARVIKARM_IsConnected = []() -> U8 { return 0; };
  return Api;
}

const TARVIK_API _AbsentApi = _MakeAbsentApi();
std::atomic<const TARVIK_API*> _pApi{nullptr};

}  // namespace

const TARVIK_API& TARVIK_GetAbsentApi() {
  return _AbsentApi;
}

const TARVIK_API& GetTarvikApi() {
  const TARVIK_API* p = _pApi.load(std::memory_order_acquire);
  return p ? *p : _AbsentApi;
}

void SetTarvikApi(const TARVIK_API* pApi) {
  _pApi.store(pApi, std::memory_order_release);
}
