// libFuzzer target over the ELF layer and the DWARF load: every input is opened as a program file,
// every query runs over it, and it is closed again. Built only with ZEVRA_FUZZ=ON (clang).
#include <cstddef>
#include <cstdint>

#include "debuginfo/ElfFile.h"
#include "debuginfo/tests/ExerciseFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t Size) {
  if (Size > 4 * 1024 * 1024)
    return 0;
  ELF_FILE* pFile = ELF_OpenImage(pData, (U32)Size, "fuzz.elf");
  if (pFile) {
    ExerciseFile(pFile);
    ELF_Close(pFile);
  }
  return 0;
}
