// Editing sets and partition entries, the CSV exports and mounting a set, through the real kor on a sandboxed device.
#include <iterator>
#include <sstream>

#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

using sandbox::Device, sandbox::RunResult;

// The fields stored under e.g. "[4]." (partinfo[4], pinfometa[4]) as "name=value ..."; "-": both copies blank.
static std::string stored(const Device& d, const std::string& tag)
{
    const sandbox::bytes img = d.read(Device::part(3), 0, 5120);
    hcdec::Image im;
    if (!hcdec::decode_image(img, &im))
        return img == sandbox::bytes(5120, 0) && d.read(Device::part(4), 0, 5120) == img ? "-" : "?";
    std::string all, s;
    for (const hcdec::Part& p : im.parts) all += p.name == "KOR data" ? hcdec::decode_kor_data(p.body) : "";
    for (size_t at = all.find(tag); at != std::string::npos; at = all.find(tag, at + 1))
        s += (s.empty() ? "" : " ") + all.substr(at + tag.size(), all.find('\n', at) - at - tag.size());
    return s;
}

struct Row { std::string args; int status; std::string expect; };  // stdout, or stderr of a refusal

// Edits, each row on a fresh device, of set 1 or entry 4: what that record then holds, or the refusal (device blank).
TEST(SetEdit, EditsExportsAndMount)
{
    KOR_SANDBOX_OR_SKIP();
    using words = std::istream_iterator<std::string>;  // kor with the words of `args` split at spaces
    const auto kor = [](Device& d, auto args) { std::istringstream in(args); return d.kor({words(in), {}}); };
    const std::string r = "partset action: -refs= ", p = "partinfo 4 P ", isyn = "partinfo action: wrong syntax.\n",
                      tp = "partinfo 4 TESTPOOL 0x100", a22 = "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21";
    const Row rows[] = {
        {"partset 1 SET1 -refs=11,12,13,14", 0, "name=SET1 refs=11,12,13,14"}, {"partset 1", 0, ""},
        {"partset 1 X -refs=1 -dryrun", 0, "-"}, {"partset 1 ABCDEFGHIJKLMNOPQRST", 0, "name=ABCDEFGHIJKLMN"},
        {"partset 0x1 S -refs=0xb,014,13x,15", 0, "name=S refs=11,12,13"},
        {"partset 1 S -refs=5,6,-1,8 -meta=1.2.300", 0, "name=S refs=5,6 major=1 minor=2 build=300"},
        {"partset 1 S -refs=" + a22, 0, "name=S refs=" + a22}, {"partset 3 S", 1, "partset action: wrong syntax.\n"},
        {"partset 1 S -refs=11,,12", 1, r + "entry is not a number.\n"}, {p + "1 -offset=100000000", 1, isyn},
        {"partset 1 S -refs=" + a22 + ",0", 1, r + "holds more than 22 references.\n"},
        {"partset 1 S -refs=11,22", 1, r + "entry 22 is out of range (-1..21).\n"},
        {tp, 0, "poolname=TESTPOOL pn=4 size=256"}, {p + "1 -dryrun", 0, "-"},
        {tp + " -pn=255", 0, "poolname=TESTPOOL pn=255 size=256"}, {p + "0x100000000", 1, isyn},
        {tp + " -pn=256", 1, "partinfo action: pn invalid.\n"}, {"partinfo 22 P 1", 1, isyn}, {p + "12k", 1, isyn},
        {"partinfo 4 ABCDEFGHIJKLMNOPQRST 010 -fstype=abcdefghijkl -mount=/mnt/" + std::string(35, 'm') + " -bogus",
         0, "poolname=ABCDEFGHIJKLMNOP pn=4 size=8 mountpnt=/mnt/" + std::string(26, 'm') + " fstype=abcdefghi"},
    };
    for (const Row& row : rows) {  // refusals are logged; the neighbouring record stays as it was
        Device d;
        d.with_default_layout();
        RunResult r = kor(d, row.args);
        const bool set = row.args[4] == 's', blank = row.status || row.expect == "-";
        const std::string t = set ? "[1].[2]." : "[4].[5].", log = r.log.empty() ? "" : r.log.back().text;
        EXPECT_EQ(std::to_string(r.status) + (row.status ? r.err + log : stored(d, t.substr(0, 4))) + "|" +
                      stored(d, t.substr(4)), std::to_string(row.status) + row.expect + (row.status ? row.expect : "") +
                      "|" + (blank ? "-" : set ? "name=SET2" : "poolname=SAFEKNLS pn=5 offset=1703936 size=8388608"))
            << row.args;
    }
    Device d;  // the exports and mounting, on one device
    d.with_default_layout();
    ASSERT_EQ(d.run({"sh", "-c", "mke2fs -q -t ext4 /dev/mmcblk0p13 && mkdir -p /mnt/r /mnt/appl"}).status, 0);
    const std::string r13 = "13,ROOTS,13,0x0D220000,0x04000000,/mnt/r,ext4,0x00000000,0x00001000,2.1,7,\n",
                      head = "# KOR Partion Set CSV version 1.0\n# Selected Partition Set: ",
                      cols = "# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n",
                      z = ",0x00000000,0x00000000,0.0,0,\n", one = ",0x00000000,0x00000001,",
                      set1 = head + "1\n" + cols + "11,KNLS,11" + one + "/,ext4" + z + "12,DTS,12" + one + "/mnt/dts," +
                             z + r13 + "14,APPLS,14" + one + "/mnt/appl,nosuchfs" + z + "# End of list\n";
    const std::string pif = "getpartset action: PIF could not parse or too long.\n", a100 = std::string(100, 'a'),
                      m = "KOR: Mounting /dev/mmcblk0p", rt = m + "13 on /mnt/r as ext4...",
                      appl = m + "14 on /mnt/appl as nosuchfs...", nodev = appl + " FAILED: No such device\n";
    const Row exports[] = {
        {"partset 1 SET1 -refs=11,12,13,14 -meta=1.2.3", 0, ""}, {"partinfo 11 KNLS 1 -mount=/ -fstype=ext4", 0, ""},
        {"partinfo 12 DTS 1 -mount=/mnt/dts", 0, ""}, {"partinfo 14 APPLS 1 -mount=/mnt/appl -fstype=nosuchfs", 0, ""},
        {"partinfo 13 ROOTS 0x4000000 -offset=D220000 -mount=/mnt/r -fstype=ext4 -meta=2.1.7 -metacrc=0xBEEF "
         "-metalength=4096", 0, ""},
        {"getpartset 1 -x", 0, set1}, {"getpartset 1 ROOT", 0, ""},
        {"getpartset active", 0, head + "0\n" + cols + "# End of list\n"}, {"getpartset 1 ROOTS", 0, r13},
        {"getpartset 1 ROOTS -pif=pidx,crc,ver,ver_major,ver_minor,build_num,len_dec,mountpnt,fstype,offset,size,"
         "build_id,size_dec", 0, "13,,2.01,2,01,7,4096,/mnt/r,ext4,0x0D220000,0x04000000,,67108864\n"},
        {"getpartset 1 ROOTS -pif=" + a100.substr(6) + ",pidx", 0, ",13\n"},  // a list of 99 characters
        {"getrh 1", 0, "# KOR Release Header CSV version 1.0\n# Selected Partition Set: 1\n"
                       "# ver,build,build_id,build_time\n1.2,3,,1970.01.01 00:00:00\n# End of list\n"},
        {"getrh SET1 -pif=ver,build_time,x", 0, "1.02,1970.01.01 00:00:00,\n"},
        {"getpartset", 1, "getpartset action: SETIDX is missing.\n"}, {"getrh 3", 1, "getrh: invalid set idx?\n"},
        {"getpartset SET1", 1, "getpartset action: SETIDX is illegal.\n"}, {"getpartset 1 -pif=" + a100, 1, pif},
        {"getpartset 1 ROOTS -pif=a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a", 1, pif},
        {"getrh", 1, "getrh: missing set idx?\n"}, {"mount", 1, "mount: missing set idx?\n"},
        {"mount active", 1, "mount: invalid set idx?\n"}, {"mount 1 -dryrun", 0, rt + " DRYRUN\n" + appl + " DRYRUN\n"},
        {"partinfo 5 S 1 -metacrc=7 -metalength=9 -meta=1.2.3", 0, ""}, {"partinfo 5", 0, ""},  // keeps the header's
        {"mount SET1", 0, rt + " OK\n" + nodev},  // the dry run mounted nothing
        {"mount 1", 0, rt + " PASS: Already mounted or in use (EBUSY)\n" + nodev},
    };
    for (const Row& e : exports) {
        RunResult r = kor(d, e.args);
        EXPECT_EQ(std::to_string(r.status) + (e.status ? r.err : r.out), std::to_string(e.status) + e.expect) << e.args;
    }
    EXPECT_EQ(stored(d, "[5]."), "body_length=9 body_crc=7 sw_major=1 sw_minor=2 sw_build=3");
    EXPECT_EQ(d.run({"umount", "/mnt/r"}).status, 0);
}
