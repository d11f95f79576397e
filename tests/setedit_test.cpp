// Editing sets and partition entries, the CSV exports and mounting a set,
// through the real kor on a sandboxed device.
#include <gtest/gtest.h>
#include <syslog.h>

#include <iterator>
#include <sstream>

#include "support/hostconfig_decoder.h"
#include "support/sandbox.h"

namespace {

using sandbox::Device;
using sandbox::RunResult;

// The stored fields of the records tagged e.g. "[4]." (partinfo[4] and
// pinfometa[4]) as "name=value ..."; "-" while both hostconfig copies are blank.
std::string stored(const Device& d, const std::string& tag)
{
    sandbox::bytes img = d.read(Device::part(3), 0, 5120), zero(5120, 0);
    if (img == zero && d.read(Device::part(4), 0, 5120) == zero) return "-";
    hcdec::Image im;
    if (!hcdec::decode_image(img, &im)) return "?";
    std::string all, s;
    for (const hcdec::Part& p : im.parts) all += p.name == "KOR data" ? hcdec::decode_kor_data(p.body) : "";
    for (size_t at = all.find(tag); at != std::string::npos; at = all.find(tag, at + 1))
        s += (s.empty() ? "" : " ") + all.substr(at + tag.size(), all.find('\n', at) - at - tag.size());
    return s;
}

// The words of a kor command line, split at spaces; stdout, or stderr of a refusal.
struct Row { std::string args; int status; std::string expect; };

RunResult kor(Device& d, const std::string& args)
{
    std::istringstream in(args);
    return d.kor({std::istream_iterator<std::string>(in), {}});
}

void run_rows(Device& d, const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        RunResult r = kor(d, row.args);
        EXPECT_EQ(std::to_string(r.status) + " " + (row.status ? r.err : r.out), std::to_string(row.status) + " " + row.expect)
            << row.args;
    }
}

// Each row on a fresh device, editing set 1 or entry 4: `expect` is what that
// record then holds, or the refusal, which is logged and leaves the device blank.
TEST(SetEdit, PartsetAndPartinfo)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string syn = "partset action: wrong syntax.\n", nan = "partset action: -refs= entry is not a number.\n",
                      isyn = "partinfo action: wrong syntax.\n", pn = "partinfo action: pn invalid.\n";
    const std::string refs22 = "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21";  // the most a set holds
    const Row rows[] = {
        {"partset 1 SET1 -refs=11,12,13,14", 0, "name=SET1 refs=11,12,13,14"},
        {"partset 1", 0, ""}, {"partset 1 SET1 -refs=", 0, "name=SET1"},
        {"partset 1 -refs=11,12", 0, "name=-refs=11,12"}, {"partset 1 X -refs=1 -dryrun", 0, "-"},
        {"partset 1 ABCDEFGHIJKLMNOPQRST", 0, "name=ABCDEFGHIJKLMN"},
        {"partset 0x1 S -refs=0xb,014,13x,15", 0, "name=S refs=11,12,13"},
        {"partset 1 S -refs=5,6,-1,8 -meta=1.2.300", 0, "name=S refs=5,6 major=1 minor=2 build=300"},
        {"partset 1 S -refs=" + refs22, 0, "name=S refs=" + refs22}, {"partset", 1, syn}, {"partset x S", 1, syn},
        {"partset 1x S", 1, syn}, {"partset 3 S", 1, syn}, {"partset -1 S", 1, syn}, {"partset 1 S -refs=11,a", 1, nan},
        {"partset 1 S -refs=11,,12", 1, nan},
        {"partset 1 S -refs=" + refs22 + ",0", 1, "partset action: -refs= holds more than 22 references.\n"},
        {"partset 1 S -refs=11,22", 1, "partset action: -refs= entry 22 is out of range (-1..21).\n"},
        {"partinfo 4 TESTPOOL 0x100", 0, "poolname=TESTPOOL pn=4 size=256"}, {"partinfo 4 P 1 -dryrun", 0, "-"},
        {"partinfo 4 TESTPOOL 0x100 -pn=255", 0, "poolname=TESTPOOL pn=255 size=256"}, {"partinfo 5 -dryrun", 0, "-"},
        {"partinfo 4 TESTPOOL 0x100 -offset=1a0000 -mount=/opt -fstype=ext4 -meta=1.2.3 -metacrc=305419896 "
         "-metalength=4096",
         0, "poolname=TESTPOOL pn=4 offset=1703936 size=256 mountpnt=/opt fstype=ext4 body_length=4096 "
            "body_crc=305419896 sw_major=1 sw_minor=2 sw_build=3"},
        {"partinfo 4 ABCDEFGHIJKLMNOPQRST 010 -fstype=abcdefghijkl -mount=/mnt/" + std::string(35, 'm') + " -bogus",
         0, "poolname=ABCDEFGHIJKLMNOP pn=4 size=8 mountpnt=/mnt/" + std::string(26, 'm') + " fstype=abcdefghi"},
        {"partinfo 4 TESTPOOL 0x100 -pn=256", 1, pn}, {"partinfo 4 TESTPOOL 0x100 -pn=-2", 1, pn},
        {"partinfo", 1, isyn}, {"partinfo 22 P 1", 1, isyn}, {"partinfo x", 1, isyn}, {"partinfo 4 P", 1, isyn},
        {"partinfo 4 P 12k", 1, isyn}, {"partinfo 4 P -1", 1, isyn}, {"partinfo 4 P 0x100000000", 1, isyn},
        {"partinfo 4 P 1 -offset=100000000", 1, isyn},
    };
    for (const Row& row : rows) {
        Device d;
        d.with_default_layout();
        RunResult r = kor(d, row.args);
        bool set = row.args.rfind("partset", 0) == 0, logged = false;
        std::string next = set ? "name=SET2" : "poolname=SAFEKNLS pn=5 offset=1703936 size=8388608";
        for (const sandbox::LogLine& l : r.log) logged |= l.priority == LOG_ERR && l.text == row.expect;
        EXPECT_EQ(std::to_string(r.status) + (row.status ? r.err : stored(d, set ? "[1]." : "[4].")) + "|" +
                      stored(d, set ? "[2]." : "[5].") + (logged ? "|logged" : ""),  // refusals at LOG_ERR, device blank
                  std::to_string(row.status) + row.expect + "|" + (row.status || row.expect == "-" ? "-" : next) +
                      (row.status ? "|logged" : "")) << row.args;
    }
    Device d;  // clearing an entry keeps what its content header recorded
    d.with_default_layout();
    ASSERT_EQ(kor(d, "partinfo 5 SAFEKNLS 0x800000 -metacrc=7 -metalength=9 -meta=1.2.3").status, 0);
    ASSERT_EQ(kor(d, "partinfo 5").status, 0);
    EXPECT_EQ(stored(d, "[5]."), "body_length=9 body_crc=7 sw_major=1 sw_minor=2 sw_build=3");
}

TEST(SetEdit, GetpartsetGetrhAndMount)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout();
    ASSERT_EQ(kor(d, "partset 1 SET1 -refs=11,12,13,14 -meta=1.2.3").status, 0);
    ASSERT_EQ(kor(d, "partinfo 13 ROOTS 0x4000000 -offset=D220000 -mount=/mnt/r -fstype=ext4 -meta=2.1.7 "
                     "-metacrc=0xBEEF -metalength=4096").status, 0);
    const std::string r13 = "13,ROOTS,13,0x0D220000,0x04000000,/mnt/r,ext4,0x00000000,0x00001000,2.1,7,\n",
                      head = "# KOR Partion Set CSV version 1.0\n# Selected Partition Set: ",
                      cols = "# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n",
                      set1 = head + "1\n" + cols + "11,KNLS,11,0x0C9E0000,0x00800000,,,0x00000000,0x00000000,0.0,0,\n"
                             "12,DTS,12,0x0D1E0000,0x00040000,,,0x00000000,0x00000000,0.0,0,\n" + r13 +
                             "14,APPLS,14,0x11220000,0x04000000,,,0x00000000,0x00000000,0.0,0,\n# End of list\n";
    const std::string pif = "getpartset action: PIF could not parse or too long.\n", a100 = std::string(100, 'a'),
                      illegal = "getpartset action: SETIDX is illegal.\n", bad = "getrh: invalid set idx?\n";
    run_rows(d, {
        {"getpartset 1", 0, set1}, {"getpartset 1 -pif=", 0, set1}, {"getpartset 1 -x -pif=pidx", 0, set1},
        {"getpartset active", 0, head + "0\n" + cols + "# End of list\n"}, {"getpartset 1 ROOTS", 0, r13},
        {"getpartset 1 ROOT", 0, ""},
        {"getpartset 1 -pif=pidx,pn,size_dec", 0, "11,11,8388608\n12,12,262144\n13,13,67108864\n14,14,67108864\n"},
        {"getpartset 1 ROOTS -pif=pidx,crc,ver,ver_major,ver_minor,build_num,len,len_dec,mountpnt,fstype,offset,size,"
         "pool,build_id",
         0, "13,,2.01,2,01,7,0x00001000,4096,/mnt/r,ext4,0x0D220000,0x04000000,ROOTS,\n"},
        {"getpartset 1 ROOTS -pif=" + a100.substr(6) + ",pidx", 0, ",13\n"},  // a list of 99 characters
        {"getrh 1", 0, "# KOR Release Header CSV version 1.0\n# Selected Partition Set: 1\n"
                       "# ver,build,build_id,build_time\n1.2,3,,1970.01.01 00:00:00\n# End of list\n"},
        {"getrh SET1 -pif=ver,build_time,x", 0, "1.02,1970.01.01 00:00:00,\n"},
        {"getrh active -pif=ver_major,ver_minor,build_num,build_id", 0, "0,00,0,\n"},
        {"getpartset", 1, "getpartset action: SETIDX is missing.\n"}, {"getpartset SET1", 1, illegal},
        {"getpartset 3", 1, illegal}, {"getpartset -1", 1, illegal},
        {"getpartset 1 -pif=" + a100, 1, pif}, {"getrh 1 -pif=" + a100, 1, pif},  // 100 characters
        {"getpartset 1 ROOTS -pif=a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a", 1, pif},  // 20 names
        {"getrh", 1, "getrh: missing set idx?\n"}, {"getrh SET9", 1, bad}, {"getrh 3", 1, bad},
    });
    std::string v = kor(d, "getpartset 1 ROOTS -v -pif=pidx").out;  // reports first, same stream
    EXPECT_NE(v.find("Pools:\n"), std::string::npos);
    EXPECT_EQ(v.substr(v.size() - 7), "(0)\n13\n") << v;

    for (const char* c : {"partset 1 SET1 -refs=11,12,13,14", "partinfo 11 KNLS 1 -mount=/ -fstype=ext4",
                          "partinfo 12 DTS 1 -mount=/mnt/dts", "partinfo 13 ROOTS 1 -mount=/mnt/root -fstype=ext4",
                          "partinfo 14 APPLS 1 -mount=/mnt/appl -fstype=nosuchfs"})
        ASSERT_EQ(kor(d, c).status, 0) << c;
    ASSERT_EQ(d.run({"sh", "-c", "mke2fs -q -t ext4 /dev/mmcblk0p13 && mkdir -p /mnt/root /mnt/appl"}).status, 0);
    const std::string m = "KOR: Mounting /dev/mmcblk0p", root = m + "13 on /mnt/root as ext4...",
                      appl = m + "14 on /mnt/appl as nosuchfs...", nodev = appl + " FAILED: No such device\n";
    run_rows(d, {{"mount 1 -dryrun", 0, root + " DRYRUN\n" + appl + " DRYRUN\n"},  // so the next one mounts
                 {"mount", 1, "mount: missing set idx?\n"}, {"mount active", 1, "mount: invalid set idx?\n"},
                 {"mount SET1", 0, root + " OK\n" + nodev},
                 {"mount 1", 0, root + " PASS: Already mounted or in use (EBUSY)\n" + nodev}});
    EXPECT_EQ(d.run({"umount", "/mnt/root"}).status, 0);
}

}  // namespace
