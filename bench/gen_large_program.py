#!/usr/bin/env python3
"""Writes a large C program for the program-load benchmark and builds it with arm-none-eabi-gcc.

The program has the shape that makes real firmware ELFs big: a device header with many peripheral
register blocks (structs of registers, bit-field unions, enums of field values) and an application
header of shared data structures, both included by every unit, so each unit carries its own copy of
the types it uses; then per unit its own structs, enums, typedefs, globals and functions with
parameters, locals and nested blocks. With the defaults the ELF is about 50 MB with a few million
DIEs. The output is deterministic for the same arguments.

Usage: python3 bench/gen_large_program.py OUT_DIR [--units N] [--funcs N] [--jobs N] [--no-build]
The ELF is OUT_DIR/large.elf.
"""

import argparse
import os
import random
import subprocess
import sys
import time

BASE_TYPES = ["uint8_t", "uint16_t", "uint32_t", "int8_t", "int16_t", "int32_t", "int64_t", "uint64_t",
              "float", "double", "char", "_Bool"]
INT_TYPES = ["uint8_t", "uint16_t", "uint32_t", "int8_t", "int16_t", "int32_t"]

STARTUP = """/* Vector table and reset handler of the generated program. */
#include <stdint.h>
extern uint32_t __StackTop;
extern int main(void);
void Reset_Handler(void);
void Default_Handler(void) {
  for (;;) {
  }
}
__attribute__((section(".vectors"), used)) void (*const g_apfVectors[16])(void) = {
    (void (*)(void))(&__StackTop), Reset_Handler, Default_Handler, Default_Handler, Default_Handler,
    Default_Handler, Default_Handler, 0, 0, 0, 0, Default_Handler, Default_Handler, 0, Default_Handler,
    Default_Handler};
void Reset_Handler(void) {
  main();
  for (;;) {
  }
}
"""

# Flash and RAM far larger than any part has: the program is only loaded, never run.
LINKER_SCRIPT = """MEMORY
{
  FLASH (rx)  : ORIGIN = 0x00000000, LENGTH = 64M
  RAM   (rwx) : ORIGIN = 0x20000000, LENGTH = 64M
}
ENTRY(Reset_Handler)
SECTIONS
{
  .vectors : { KEEP(*(.vectors)) } > FLASH
  .text : { *(.text*) *(.rodata*) . = ALIGN(4); } > FLASH
  .ARM.exidx : { *(.ARM.exidx*) } > FLASH
  __etext = .;
  .data : AT(__etext) { *(.data*) . = ALIGN(4); } > RAM
  .bss (NOLOAD) : { *(.bss*) *(COMMON) . = ALIGN(4); } > RAM
  __StackTop = ORIGIN(RAM) + LENGTH(RAM);
}
"""


def device_header(rng, peripherals):
    """Peripheral register blocks: registers, reserved gaps, bit-field unions, enums of values."""
    out = ["/* Generated peripheral register blocks. */", "#pragma once", "#include <stdint.h>", ""]
    for p in range(peripherals):
        fields = rng.randint(4, 8)
        out.append("typedef enum {")
        for v in range(fields):
            out.append(f"  PERIPH{p}_MODE_{v} = {v * 3},")
        out.append(f"}} Periph{p}_Mode_t;")
        out.append("typedef union {")
        out.append("  volatile uint32_t w;")
        out.append("  struct {")
        bits = 0
        for f in range(fields):
            width = rng.randint(1, 4)
            if bits + width > 32:
                break
            out.append(f"    volatile uint32_t F{f} : {width};")
            bits += width
        out.append("  } b;")
        out.append(f"}} Periph{p}_CTRL_t;")
        out.append("typedef struct {")
        out.append(f"  Periph{p}_CTRL_t CTRL;")
        regs = rng.randint(12, 30)
        for r in range(regs):
            kind = rng.random()
            if kind < 0.1:
                out.append(f"  uint32_t RESERVED{r}[{rng.randint(2, 8)}];")
            elif kind < 0.2:
                out.append(f"  volatile uint32_t BUF{r}[{rng.randint(2, 16)}];")
            elif kind < 0.3:
                out.append(f"  volatile Periph{p}_Mode_t MODE{r};")
            else:
                out.append(f"  volatile uint32_t REG{r};")
        out.append(f"}} Periph{p}_Type;")
        out.append(f"#define PERIPH{p} ((Periph{p}_Type*)0x{0x40000000 + p * 0x400:08X}u)")
        out.append("")
    return "\n".join(out) + "\n"


def app_header(rng, structs):
    """Shared application structures that point at each other, some with nested arrays."""
    out = ["/* Generated shared application types. */", "#pragma once", "#include <stdint.h>", ""]
    for s in range(structs):
        out.append(f"struct App{s};")
    for s in range(structs):
        out.append(f"typedef enum {{ APP{s}_IDLE, APP{s}_BUSY, APP{s}_DONE, APP{s}_ERROR }} App{s}_State;")
        out.append(f"typedef struct App{s} {{")
        for m in range(rng.randint(6, 14)):
            kind = rng.random()
            if kind < 0.15 and s > 0:
                out.append(f"  struct App{rng.randrange(s)}* pLink{m};")
            elif kind < 0.25:
                out.append(f"  {rng.choice(INT_TYPES)} aData{m}[{rng.randint(2, 6)}][{rng.randint(2, 4)}];")
            elif kind < 0.35:
                out.append(f"  App{s}_State state{m};")
            elif kind < 0.45:
                out.append(f"  struct {{ uint16_t lo{m}; uint16_t hi{m}; }} pair{m};")
            else:
                out.append(f"  {rng.choice(BASE_TYPES)} value{m};")
        out.append(f"}} App{s}_t;")
        out.append("")
    return "\n".join(out) + "\n"


def unit_source(rng, u, args):
    """One unit: its own types and globals, functions with locals and blocks, and reads of a share of
    the peripherals and application types so their debug information lands in this unit."""
    out = [f"/* Generated unit {u}. */", "#include <stdint.h>", '#include "device.h"', '#include "app.h"', ""]
    # Own types.
    for s in range(args.local_structs):
        out.append(f"typedef struct U{u}S{s} {{")
        for m in range(rng.randint(4, 10)):
            kind = rng.random()
            if kind < 0.2 and s > 0:
                out.append(f"  struct U{u}S{rng.randrange(s)} inner{m};")
            elif kind < 0.3:
                out.append(f"  App{rng.randrange(args.app_structs)}_t* pApp{m};")
            elif kind < 0.4:
                out.append(f"  {rng.choice(INT_TYPES)} arr{m}[{rng.randint(2, 12)}];")
            else:
                out.append(f"  {rng.choice(BASE_TYPES)} field{m};")
        out.append(f"}} U{u}S{s}_t;")
    for e in range(args.local_enums):
        values = ", ".join(f"U{u}E{e}_V{v} = {v}" for v in range(rng.randint(4, 12)))
        out.append(f"typedef enum {{ {values} }} U{u}E{e}_t;")
    for t in range(args.local_typedefs):
        out.append(f"typedef {rng.choice(BASE_TYPES)} U{u}T{t}_t;")
        out.append(f"typedef U{u}S{rng.randrange(args.local_structs)}_t* U{u}P{t}_t;")
    out.append("")
    # Globals.
    for g in range(args.globals):
        kind = rng.random()
        if kind < 0.4:
            out.append(f"U{u}S{rng.randrange(args.local_structs)}_t g_U{u}Obj{g};")
        elif kind < 0.6:
            out.append(f"App{rng.randrange(args.app_structs)}_t g_U{u}App{g}[{rng.randint(1, 4)}];")
        elif kind < 0.8:
            out.append(f"U{u}E{rng.randrange(args.local_enums)}_t g_U{u}Mode{g} = 0;")
        else:
            out.append(f"static U{u}T{rng.randrange(args.local_typedefs)}_t s_U{u}Value{g};")
    out.append("")
    # Functions: each calls the one before it so the call graph is a chain.
    for f in range(args.funcs):
        s1 = rng.randrange(args.local_structs)
        e1 = rng.randrange(args.local_enums)
        t1 = rng.randrange(args.local_typedefs)
        name = f"U{u}_Func{f}"
        out.append(f"int {name}(U{u}S{s1}_t* pObj, int Count, U{u}E{e1}_t Mode, U{u}T{t1}_t Value) {{")
        out.append("  int Sum = 0;")
        out.append(f"  U{u}S{rng.randrange(args.local_structs)}_t Local;")
        out.append(f"  U{u}P{rng.randrange(args.local_typedefs)}_t pOther = 0;")
        out.append(f"  {rng.choice(INT_TYPES)} aBuf[{rng.randint(4, 32)}];")
        out.append("  (void)Local;")
        out.append("  (void)pOther;")
        out.append("  (void)pObj;")
        out.append("  for (int i = 0; i < Count; i++) {")
        out.append("    int Step = i * 3 + (int)Mode;")
        out.append("    aBuf[i % (int)(sizeof(aBuf) / sizeof(aBuf[0]))] = (uint8_t)Step;")
        out.append("    Sum += Step + (int)Value;")
        out.append("    if (Sum > 1000) {")
        out.append("      unsigned Overflow = (unsigned)Sum - 1000u;")
        out.append("      Sum = (int)(Overflow / 2u);")
        out.append("    }")
        out.append("  }")
        if f > 0:
            out.append(f"  Sum += U{u}_Func{f - 1}(pObj, Count - 1, Mode, Value);")
        out.append("  return Sum;")
        out.append("}")
        out.append("")
    # Reads of peripherals and application types.
    out.append(f"uint32_t U{u}_Touch(void) {{")
    out.append("  uint32_t Sum = 0;")
    for p in rng.sample(range(args.peripherals), args.peripherals_per_unit):
        out.append(f"  Sum += PERIPH{p}->CTRL.w;")
    for a in rng.sample(range(args.app_structs), args.app_per_unit):
        out.append(f"  {{ static App{a}_t s_Obj; Sum += (uint32_t)sizeof(s_Obj); }}")
    out.append("  return Sum;")
    out.append("}")
    out.append("")
    out.append(f"int U{u}_Entry(void) {{")
    out.append(f"  static U{u}S0_t s_Obj;")
    out.append(f"  return U{u}_Func{args.funcs - 1}(&s_Obj, 3, (U{u}E0_t)0, 0) + (int)U{u}_Touch();")
    out.append("}")
    return "\n".join(out) + "\n"


def main_source(units):
    out = ["/* Generated entry: calls every unit. */"]
    for u in range(units):
        out.append(f"int U{u}_Entry(void);")
    out.append("int main(void) {")
    out.append("  int Sum = 0;")
    for u in range(units):
        out.append(f"  Sum += U{u}_Entry();")
    out.append("  return Sum;")
    out.append("}")
    return "\n".join(out) + "\n"


def write(path, text):
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def build(out_dir, sources, jobs, extra):
    cflags = ["-mcpu=cortex-m4", "-mthumb", "-g", "-O0", "-ffreestanding", "-fno-common", "-w"] + extra
    objs = []
    running = []
    for src in sources:
        obj = os.path.splitext(src)[0] + ".o"
        objs.append(obj)
        while len(running) >= jobs:
            proc = running.pop(0)
            if proc.wait() != 0:
                sys.exit(f"compile failed: {' '.join(proc.args)}")
        running.append(subprocess.Popen(["arm-none-eabi-gcc"] + cflags + ["-c", src, "-o", obj], cwd=out_dir))
    for proc in running:
        if proc.wait() != 0:
            sys.exit(f"compile failed: {' '.join(proc.args)}")
    link = ["arm-none-eabi-gcc", "-mcpu=cortex-m4", "-mthumb", "-nostdlib", "-T", "link.ld",
            "-o", "large.elf"]
    subprocess.run(link + objs + ["-lgcc"], cwd=out_dir, check=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("out_dir")
    parser.add_argument("--units", type=int, default=300, help="translation units (default 300)")
    parser.add_argument("--funcs", type=int, default=40, help="functions per unit (default 40)")
    parser.add_argument("--local-structs", type=int, default=20)
    parser.add_argument("--local-enums", type=int, default=10)
    parser.add_argument("--local-typedefs", type=int, default=10)
    parser.add_argument("--globals", type=int, default=30)
    parser.add_argument("--peripherals", type=int, default=200)
    parser.add_argument("--peripherals-per-unit", type=int, default=120)
    parser.add_argument("--app-structs", type=int, default=300)
    parser.add_argument("--app-per-unit", type=int, default=150)
    parser.add_argument("--jobs", type=int, default=2, help="parallel compilers (default 2)")
    parser.add_argument("--dwarf5-as", action="store_true", help="also pass -Wa,--gdwarf-5")
    parser.add_argument("--no-build", action="store_true", help="write the sources only")
    args = parser.parse_args()
    args.peripherals_per_unit = min(args.peripherals_per_unit, args.peripherals)
    args.app_per_unit = min(args.app_per_unit, args.app_structs)

    os.makedirs(args.out_dir, exist_ok=True)
    start = time.monotonic()
    rng = random.Random(20261122)
    write(os.path.join(args.out_dir, "device.h"), device_header(rng, args.peripherals))
    write(os.path.join(args.out_dir, "app.h"), app_header(rng, args.app_structs))
    write(os.path.join(args.out_dir, "startup.c"), STARTUP)
    write(os.path.join(args.out_dir, "link.ld"), LINKER_SCRIPT)
    write(os.path.join(args.out_dir, "main.c"), main_source(args.units))
    sources = ["startup.c", "main.c"]
    for u in range(args.units):
        name = f"unit{u:04d}.c"
        write(os.path.join(args.out_dir, name), unit_source(rng, u, args))
        sources.append(name)
    print(f"wrote {len(sources)} sources in {time.monotonic() - start:.1f} s")
    if args.no_build:
        return
    build(args.out_dir, sources, args.jobs, ["-Wa,--gdwarf-5"] if args.dwarf5_as else [])
    elf = os.path.join(args.out_dir, "large.elf")
    print(f"built {elf}: {os.path.getsize(elf) / 1e6:.1f} MB in {time.monotonic() - start:.1f} s")


if __name__ == "__main__":
    main()
