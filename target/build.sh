#!/bin/sh
# Rebuilds the committed target programs under elf/: for each program an ELF with debug information,
# a flat flash image (.bin, loaded at address 0) and its symbol list (.nm, from arm-none-eabi-nm).
# Paths in the debug information are made relative to this folder so the files don't depend on
# where the checkout lives. Run from anywhere: sh target/build.sh
set -e
cd "$(dirname "$0")"
CC=arm-none-eabi-gcc
COMMON="-ffreestanding -fno-common -Wall -Wextra -Icommon -Imct -fdebug-prefix-map=$(pwd)=. -nostdlib -T common/link.ld"
LIBS="-lgcc"
SUPPORT="common/startup.c common/semihost.c mct/quorin_mct.c"
mkdir -p elf

build() { # name cpu opt debug-flags fixture
  name=$1; cpu=$2; opt=$3; dbg=$4; src=$5
  $CC -mcpu=$cpu -mthumb $opt $dbg $COMMON -o elf/$name.elf fixtures/$src $SUPPORT $LIBS
  arm-none-eabi-objcopy -O binary elf/$name.elf elf/$name.bin
  arm-none-eabi-nm -n elf/$name.elf > elf/$name.nm
}

for f in basic semihosting itm mct_echo fault systick bench demo; do
  build $f-O0 cortex-m4 -O0 -g $f.c
  build $f-O2 cortex-m4 -O2 -g $f.c
done
# Line tables in both versions: the default (DWARF 5 from gcc 12) and DWARF 4 with assembler help.
build basic-O0-dwarf4 cortex-m4 -O0 "-gdwarf-4" basic.c
build basic-O0-gdwarf5as cortex-m4 -O0 "-g -Wa,--gdwarf-5" basic.c
# Thumb-1 only code for the Cortex-M0 simulator.
build basic-m0-O0 cortex-m0 -O0 -g basic.c
build systick-m0-O2 cortex-m0 -O2 -g systick.c
# Programs for stepping the simulator and QEMU side by side, each built for the cores it is about. The
# Cortex-M0 ones fit the 16 KiB of RAM of QEMU's microbit board.
COMMON_16K=$(echo "$COMMON" | sed 's#common/link.ld#common/link-16k.ld#')
build_16k() { # name cpu opt debug-flags fixture
  COMMON_SAVED=$COMMON; COMMON=$COMMON_16K; build "$@"; COMMON=$COMMON_SAVED
}
FPU="-mfloat-abi=hard -mfpu=fpv4-sp-d16"
build_16k basic-m0-16k-O0 cortex-m0 -O0 -g basic.c
build_16k isa-m0-O2 cortex-m0 -O2 -g isa.c
for core in m3 m4; do
  build itblocks-$core-O2 cortex-$core -O2 -g itblocks.c
  build faults-$core-O2 cortex-$core -O2 -g faults.c
  build mpu-$core-O2 cortex-$core -O2 -g mpu.c
done
build isa-m3-O2 cortex-m3 -O2 -g isa.c
build isa-m4-O2 "cortex-m4 $FPU" -O2 -g isa.c
build fpirq-m4-O2 "cortex-m4 $FPU" -O2 -g fpirq.c
