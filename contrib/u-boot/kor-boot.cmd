# kor boot selection for U-Boot -- an example to adapt to the board.
#
# kor keeps the upgrade flags of SET1 and SET2 in two bytes at 0x3FE00 and
# 0x3FE01 of the hostconfig partition (mmc 0:3): bit 0 is the test mark,
# bit 1 the boot mark. This script
#   - boots the active set when its flags are VALID (test mark clear);
#   - boots a set in TEST once: it sets the boot mark first and writes it
#     back, so that a reset before "kor upgrade validate" is seen;
#   - finds a set in BOOT (test mark and boot mark: the test boot did not
#     validate) and falls back to the previous set instead;
# and tells the system which set it booted with KORSET=SAFESET, KORSET=SET1
# or KORSET=SET2 on the kernel command line (kor upgrade reads it there).
#
# The board environment provides:
#   kor_active    set to boot normally: 0, 1 or 2 (default 0). The active set
#                 lives in the hostconfig image, which a boot script cannot
#                 parse; keep a copy in the U-Boot environment, e.g. from an
#                 activate hook or a script that runs after "kor upgrade activate".
#   kor_previous  set to fall back to from a failed test boot (default 0)
#   kor_boot_set  a command that loads and boots the set named by ${korset}
#                 (kernel, device tree, root partition of that set)
#   loadaddr      scratch memory for one 512-byte block
#
# Compile: mkimage -T script -C none -n "kor boot" -d kor-boot.cmd boot.scr

test -n "${kor_active}" || setenv kor_active 0
test -n "${kor_previous}" || setenv kor_previous 0
setenv korset ${kor_active}

# The block holding the flags: 0x3FE00 / 512 = 0x1FF blocks into partition 3.
mmc dev 0
part start mmc 0 3 kor_hc_start
setexpr kor_blk ${kor_hc_start} + 0x1ff

if itest ${kor_active} -gt 0; then
    if mmc read ${loadaddr} ${kor_blk} 1; then
        # Byte 0 of the block is SET1's flags, byte 1 SET2's.
        setexpr kor_addr ${loadaddr} + ${kor_active}
        setexpr kor_addr ${kor_addr} - 1
        setexpr.b kor_flags *${kor_addr}
        setexpr kor_marks ${kor_flags} "&" 3
        if itest ${kor_marks} == 1; then
            echo "kor: SET${kor_active} in TEST: boot it once"
            setexpr kor_flags ${kor_flags} "|" 2
            mw.b ${kor_addr} ${kor_flags} 1
            mmc write ${loadaddr} ${kor_blk} 1
        elif itest ${kor_marks} == 3; then
            echo "kor: SET${kor_active} failed its test boot: back to set ${kor_previous}"
            setenv korset ${kor_previous}
        fi
    else
        echo "kor: cannot read the upgrade flags: booting SAFESET"
        setenv korset 0
    fi
fi

if itest ${korset} == 0; then
    setenv bootargs "${bootargs} KORSET=SAFESET"
else
    setenv bootargs "${bootargs} KORSET=SET${korset}"
fi
run kor_boot_set
