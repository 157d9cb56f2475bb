// Runs every query of the ELF layer and the symbol tree over an open file, so that corrupt-input
// tests and the fuzzer reach the code that reads DWARF lazily, not only the load.
#pragma once

struct ELF_FILE;

// Returns a number derived from the answers, so that the work is not optimised away.
unsigned ExerciseFile(ELF_FILE* pFile);
