/* ARM semihosting calls made with BKPT 0xAB: the debugger halts there, serves the call and resumes. */
#ifndef SEMIHOST_H
#define SEMIHOST_H

void SemihostWrite0(const char* sText);
/* Ends the program: SYS_EXIT with the reason in R1 itself (0x20026 application exit), the form that
   newlib and QEMU use. A non-zero status reports 0x20023 (run-time error). */
void SemihostExit(int Status) __attribute__((noreturn));

#endif
