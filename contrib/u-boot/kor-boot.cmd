# kor boot selection for U-Boot.
#
# Reads kor's hostconfig the way kor does and boots a set whose kernel and
# root image are whole, from that set's own partitions:
#   - the hostconfig is the VELK image at the start of partition 3; when its
#     header, body or any content part fails its CRC-32, or it holds no
#     "KOR data" body of at least 3240 bytes, the backup on partition 4 is
#     used instead (kor loads the same copy);
#   - "KOR data" gives the active set, the partition entries each set lists
#     and, per entry, the content installed there with its length and CRC-32;
#   - the upgrade flags of SET1 and SET2 are bytes 0 and 1 of the block at
#     0x3FE00 of partition 3: bit 0 the test mark, bit 1 the boot mark.
# The active set is booted when it is VALID (no test mark). A set in TEST
# (test mark only) is booted once: the boot mark is written first, read back
# and checked, so that a reset before "kor upgrade validate" is seen. A set
# in BOOT (both marks: its test boot never validated) is not booted again.
# A set is booted only when the contents named ${kor_kernel} and
# ${kor_initrd} among its partitions match the length and CRC-32 that kor
# recorded after writing them, so a set that was not completely written is
# never booted. Otherwise the next candidate is tried: the other ordinary set
# when it is VALID, then SAFESET. The booted set is passed to Linux as
# KORSET=SAFESET, KORSET=SET1 or KORSET=SET2 (kor upgrade reads it there).
# This script writes nothing but the boot mark.
#
# The board environment may set:
#   kor_iface, kor_dev  the block device of the eMMC (default: mmc 0)
#   kor_kernel          content name of the kernel (default: KERNEL)
#   kor_initrd          content name of the initramfs (default: ROOT)
#   kor_fdt             device tree address (default: ${fdtcontroladdr})
#   kor_buf             64 KiB of scratch memory (default: ${scriptaddr} + 1 MiB)
#   bootargs            the kernel command line without KORSET
# and needs kernel_addr_r and ramdisk_addr_r. Contents are read as kor
# writes them with write type 1 (body from the partition's first byte).
#
# Compile: mkimage -A arm -T script -C none -n "kor boot" -d kor-boot.cmd boot.scr
# Numbers in U-Boot's setexpr and itest are hexadecimal.

test -n "${kor_iface}" || setenv kor_iface mmc
test -n "${kor_dev}" || setenv kor_dev 0
test -n "${kor_kernel}" || setenv kor_kernel KERNEL
test -n "${kor_initrd}" || setenv kor_initrd ROOT
test -n "${kor_fdt}" || setenv kor_fdt ${fdtcontroladdr}
test -n "${kor_buf}" || setexpr kor_buf ${scriptaddr} + 0x100000
setexpr kor_fb ${kor_buf} + 0x2000
setexpr kor_fb2 ${kor_buf} + 0x2200
setexpr kor_cr ${kor_buf} + 0x2400

# kor_crc_at: the CRC-32 of ${kor_n} bytes at ${kor_p} equals the
# little-endian 32-bit value at ${kor_q} (crc32 stores it big-endian).
setenv kor_crc_at '
crc32 ${kor_p} ${kor_n} ${kor_cr}; setenv kor_same 1;
for kor_k in 0 1 2 3; do
  setexpr kor_x ${kor_q} + ${kor_k}; setexpr kor_y ${kor_cr} + 3; setexpr kor_y ${kor_y} - ${kor_k};
  itest.b *${kor_x} == *${kor_y} || setenv kor_same 0;
done;
itest ${kor_same} == 1'

# kor_part: checks the content part at ${kor_p} against ${kor_rem} bytes
# left in the image body, as kor's hostconfig load does, and moves on.
setenv kor_part '
setexpr kor_a ${kor_p} + 6; setexpr.w kor_phl *${kor_a};
setexpr kor_a ${kor_p} + 8; setexpr.l kor_pbl *${kor_a};
if itest ${kor_rem} -lt ${kor_phl}; then setenv kor_ok 0; fi;
if itest ${kor_ok} == 1; then setexpr kor_rem ${kor_rem} - ${kor_phl}; fi;
if itest ${kor_rem} -lt ${kor_pbl}; then setenv kor_ok 0; fi;
if itest ${kor_phl} -lt 0x20; then setenv kor_ok 0; fi;
if itest ${kor_ok} == 1; then
  setexpr kor_rem ${kor_rem} - ${kor_pbl};
  setexpr kor_pp ${kor_p}; setexpr kor_p ${kor_pp} + 4; setexpr kor_n ${kor_phl} - 4; setexpr kor_q ${kor_pp};
  run kor_crc_at || setenv kor_ok 0;
  setexpr kor_p ${kor_pp} + ${kor_phl}; setexpr kor_n ${kor_pbl}; setexpr kor_q ${kor_pp} + 0x1c;
  run kor_crc_at || setenv kor_ok 0;
  setexpr kor_a ${kor_pp} + 0xc; setexpr kor_b ${kor_pp} + 0x10;
  if test -z "${kor_kd}" && itest.l *${kor_a} == 0x20524f4b && itest.l *${kor_b} == 0x61746164; then
    setexpr kor_kd ${kor_pp} + 0x20; setexpr kor_kdl ${kor_pbl};
  fi;
  setexpr kor_pad ${kor_pbl} % 4; if itest ${kor_pad} != 0; then setexpr kor_pad 4 - ${kor_pad}; fi;
  if itest ${kor_rem} -lt ${kor_pad}; then setenv kor_rem 0; else setexpr kor_rem ${kor_rem} - ${kor_pad}; fi;
  setexpr kor_p ${kor_pp} + ${kor_phl}; setexpr kor_p ${kor_p} + ${kor_pbl}; setexpr kor_p ${kor_p} + ${kor_pad};
  setexpr kor_cnt ${kor_cnt} + 1; if itest ${kor_cnt} -gt 0x14; then setenv kor_ok 0; fi;
fi'

# kor_hc_load: reads the hostconfig copy on partition ${kor_pn}; success
# leaves the address of its "KOR data" body in kor_kd.
setenv kor_hc_load '
setenv kor_ok 0; setenv kor_kd; setenv kor_cnt 0;
if part start ${kor_iface} ${kor_dev} ${kor_pn} kor_blk && ${kor_iface} read ${kor_buf} ${kor_blk} 0xa; then
  setenv kor_ok 1;
  setexpr kor_h ${kor_buf} + 8;
  setexpr kor_a ${kor_h} + 4; setexpr.b kor_ver *${kor_a};
  setexpr kor_a ${kor_h} + 6; setexpr.w kor_hl *${kor_a};
  setexpr kor_a ${kor_h} + 8; setexpr.l kor_rem *${kor_a};
  if itest ${kor_ver} != 1 || itest ${kor_hl} -lt 0x10 || itest ${kor_hl} -gt 0x13f8; then setenv kor_ok 0; fi;
  if itest ${kor_ok} == 1; then setexpr kor_a 0x13f8 - ${kor_hl}; itest ${kor_rem} -le ${kor_a} || setenv kor_ok 0; fi;
  if itest ${kor_ok} == 1; then
    setexpr kor_p ${kor_h} + 4; setexpr kor_n ${kor_hl} - 4; setexpr kor_q ${kor_h};
    run kor_crc_at || setenv kor_ok 0;
    setexpr kor_p ${kor_h} + ${kor_hl}; setexpr kor_n ${kor_rem}; setexpr kor_q ${kor_h} + 0xc;
    run kor_crc_at || setenv kor_ok 0;
  fi;
  setenv kor_more ${kor_ok};
  while itest ${kor_more} == 1; do
    run kor_part;
    setenv kor_more 0; if itest ${kor_ok} == 1 && itest ${kor_rem} -gt 0x20; then setenv kor_more 1; fi;
  done;
fi;
test -n "${kor_kd}" && itest ${kor_ok} == 1 && itest ${kor_kdl} -ge 0xca8'

# kor_content: loads the content of partition entry ${kor_r} (its
# "KOR data" record at ${kor_m}) to ${kor_dst} and checks it; its length
# ends up in kor_len.
setenv kor_content '
setexpr kor_pi 0x48 * ${kor_r}; setexpr kor_pi ${kor_pi} + 0x74; setexpr kor_pi ${kor_pi} + ${kor_kd};
setexpr kor_a ${kor_pi} + 0x10; setexpr.b kor_ppn *${kor_a};
setexpr kor_a ${kor_pi} + 0x18; setexpr.l kor_psize *${kor_a};
setexpr kor_a ${kor_m} + 8; setexpr.l kor_len *${kor_a};
setexpr kor_n ${kor_len} + 0x1ff; setexpr kor_n ${kor_n} / 0x200;
setexpr kor_p ${kor_dst}; setexpr kor_q ${kor_m} + 0x1c;
itest ${kor_len} != 0 && itest ${kor_len} -le ${kor_psize} && part start ${kor_iface} ${kor_dev} 0x${kor_ppn} kor_blk && ${kor_iface} read ${kor_dst} ${kor_blk} ${kor_n} && setexpr kor_n ${kor_len} && run kor_crc_at'

# kor_set: loads the kernel and initramfs of set ${kor_s} and checks them.
setenv kor_set '
setenv kor_klen; setenv kor_rlen; setenv kor_bad 0;
setexpr kor_refs 0x26 * ${kor_s}; setexpr kor_refs ${kor_refs} + 0x11; setexpr kor_refs ${kor_refs} + ${kor_kd};
setenv kor_j 0; setenv kor_more 1;
while itest ${kor_more} == 1; do
  setexpr kor_a ${kor_refs} + ${kor_j}; setexpr.b kor_r *${kor_a};
  if itest ${kor_r} -ge 0x16; then setenv kor_more 0; else
    setexpr kor_m 0x40 * ${kor_r}; setexpr kor_m ${kor_m} + 0x728; setexpr kor_m ${kor_m} + ${kor_kd};
    setexpr kor_a ${kor_m} + 0xc; setexpr.s kor_name *${kor_a};
    if test "${kor_name}" = "${kor_kernel}" && test -z "${kor_klen}"; then
      setenv kor_dst ${kernel_addr_r};
      if run kor_content; then setenv kor_klen ${kor_len}; else setenv kor_bad 1; fi;
    fi;
    if test "${kor_name}" = "${kor_initrd}" && test -z "${kor_rlen}"; then
      setenv kor_dst ${ramdisk_addr_r};
      if run kor_content; then setenv kor_rlen ${kor_len}; else setenv kor_bad 1; fi;
    fi;
    setexpr kor_j ${kor_j} + 1; if itest ${kor_j} -ge 0x16; then setenv kor_more 0; fi;
  fi;
done;
itest ${kor_bad} == 0 && test -n "${kor_klen}" && test -n "${kor_rlen}"'

# kor_name_of: the set's name as KORSET gives it.
setenv kor_name_of 'if itest ${kor_s} == 0; then setenv kor_sn SAFESET; else setenv kor_sn SET${kor_s}; fi'

# kor_mark: sets the boot mark of set ${kor_s}: read-modify-write of the
# whole block, then read back and compared.
setenv kor_mark '
setexpr kor_a ${kor_fb} + ${kor_s}; setexpr kor_a ${kor_a} - 1;
setexpr.b kor_f *${kor_a}; setexpr kor_f ${kor_f} "|" 2; mw.b ${kor_a} ${kor_f} 1;
${kor_iface} write ${kor_fb} ${kor_fblk} 1 && ${kor_iface} read ${kor_fb2} ${kor_fblk} 1 && cmp.b ${kor_fb} ${kor_fb2} 0x200'

setenv kor_kd
setenv kor_pn 3
if run kor_hc_load; then
    echo "kor: hostconfig from partition 3"
else
    echo "kor: hostconfig on partition 3 does not check, trying the backup"
    setenv kor_pn 4
    if run kor_hc_load; then
        echo "kor: hostconfig from partition 4 (backup)"
    else
        setenv kor_kd
        echo "kor: no hostconfig copy checks: nothing to boot"
    fi
fi

if test -n "${kor_kd}"; then
    setexpr.b kor_act *${kor_kd}
    # The flags block; unreadable flags: every ordinary set counts as BOOT.
    setenv kor_f1 3
    setenv kor_f2 3
    if part start ${kor_iface} ${kor_dev} 3 kor_fblk; then
        setexpr kor_fblk ${kor_fblk} + 0x1ff
        if ${kor_iface} read ${kor_fb} ${kor_fblk} 1; then
            setexpr.b kor_f1 *${kor_fb}
            setexpr kor_a ${kor_fb} + 1
            setexpr.b kor_f2 *${kor_a}
            setexpr kor_f1 ${kor_f1} "&" 3
            setexpr kor_f2 ${kor_f2} "&" 3
        fi
    fi
    # Candidates in order: the active set unless it is in BOOT, then the
    # VALID ordinary sets, then SAFESET.
    setenv kor_list
    setenv kor_s ${kor_act}
    run kor_name_of
    setenv kor_inboot 0
    if itest ${kor_act} == 1 && itest ${kor_f1} == 3; then setenv kor_inboot 1; fi
    if itest ${kor_act} == 2 && itest ${kor_f2} == 3; then setenv kor_inboot 1; fi
    if itest ${kor_inboot} == 1; then
        echo "kor: ${kor_sn} is in BOOT: its test boot did not validate"
    elif itest ${kor_act} -le 2; then
        setenv kor_list ${kor_act}
    fi
    if itest ${kor_act} != 1 && itest ${kor_f1} != 1 && itest ${kor_f1} != 3; then setenv kor_list "${kor_list} 1"; fi
    if itest ${kor_act} != 2 && itest ${kor_f2} != 1 && itest ${kor_f2} != 3; then setenv kor_list "${kor_list} 2"; fi
    if itest ${kor_act} != 0; then setenv kor_list "${kor_list} 0"; fi
    setenv kor_booting
    for kor_i in ${kor_list}; do
        if test -z "${kor_booting}"; then
            setenv kor_s ${kor_i}
            run kor_name_of
            if run kor_set; then
                setenv kor_booting ${kor_sn}
                setenv kor_test 0
                if itest ${kor_s} == ${kor_act} && itest ${kor_s} == 1 && itest ${kor_f1} == 1; then setenv kor_test 1; fi
                if itest ${kor_s} == ${kor_act} && itest ${kor_s} == 2 && itest ${kor_f2} == 1; then setenv kor_test 1; fi
                if itest ${kor_test} == 1; then
                    if run kor_mark; then
                        echo "kor: ${kor_sn} is in TEST: boot mark set, booting it once"
                    else
                        echo "kor: cannot set the boot mark of ${kor_sn}: not booting it"
                        setenv kor_booting
                    fi
                fi
            else
                echo "kor: ${kor_sn} does not check (kernel ${kor_kernel}, initramfs ${kor_initrd})"
            fi
        fi
    done
    if test -n "${kor_booting}"; then
        echo "kor: booting ${kor_booting}"
        setenv bootargs "${bootargs} KORSET=${kor_booting}"
        bootz ${kernel_addr_r} ${ramdisk_addr_r}:${kor_rlen} ${kor_fdt}
        echo "kor: bootz failed"
    else
        echo "kor: no set checks: nothing to boot"
    fi
fi
