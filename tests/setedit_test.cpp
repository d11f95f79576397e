// Editing sets and partition entries, the CSV exports and mounting a set, through the real kor on a sandboxed device.
#include <syslog.h>

#include "support/cli_case.h"
#include "support/sandbox.h"

namespace {

using cli::Case;
using sandbox::Device;

// kor with the words of `args`, named by them.
Case command(const std::string& args) { return Case(args).args(args); }

// Refused with `message` on stderr and in syslog; both hostconfig copies stay as they were.
Case refused(const std::string& args, const std::string& message)
{
    return command(args).status(1).stderr_is(message).syslog_has(LOG_ERR, message).hostconfig_unchanged();
}

const std::string kRefs = "partset action: -refs= ", kPartinfoSyntax = "partinfo action: wrong syntax.\n",
                  kAll22 = "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21";

// Each on a fresh device, whose hostconfig copies are blank: kor starts from the default layout. An edit changes
// the fields named and no other; a dry run or a refusal writes nothing.
const Case kEdits[] = {
    command("partset 1 SET1 -refs=11,12,13,14").status(0)
        .stored_default_except({{"set[1].name", "SET1"}, {"set[1].refs", "11,12,13,14"}}),
    command("partset 1").status(0).stored_default_except({{"set[1].name", ""}, {"set[1].refs", ""}}),
    command("partset 1 X -refs=1 -dryrun").status(0).hostconfig_unchanged(),
    command("partset 1 ABCDEFGHIJKLMNOPQRST").status(0)
        .stored_default_except({{"set[1].name", "ABCDEFGHIJKLMN"}, {"set[1].refs", ""}}),
    command("partset 0x1 S -refs=0xb,014,13x,15").status(0)
        .stored_default_except({{"set[1].name", "S"}, {"set[1].refs", "11,12,13"}}),
    command("partset 1 S -refs=5,6,-1,8 -meta=1.2.300").status(0)
        .stored_default_except({{"set[1].name", "S"}, {"set[1].refs", "5,6"}, {"rhdr[1].major", "1"},
                                {"rhdr[1].minor", "2"}, {"rhdr[1].build", "300"}}),
    command("partset 1 S -refs=" + kAll22).status(0)
        .stored_default_except({{"set[1].name", "S"}, {"set[1].refs", kAll22}}),
    refused("partset 3 S", "partset action: wrong syntax.\n"),
    refused("partset 1 S -refs=11,,12", kRefs + "entry is not a number.\n"),
    refused("partinfo 4 P 1 -offset=100000000", kPartinfoSyntax),
    refused("partset 1 S -refs=" + kAll22 + ",0", kRefs + "holds more than 22 references.\n"),
    refused("partset 1 S -refs=11,22", kRefs + "entry 22 is out of range (-1..21).\n"),
    command("partinfo 4 TESTPOOL 0x100").status(0)
        .stored_default_except({{"partinfo[4].poolname", "TESTPOOL"}, {"partinfo[4].pn", "4"},
                                {"partinfo[4].size", "256"}}),
    command("partinfo 4 P 1 -dryrun").status(0).hostconfig_unchanged(),
    command("partinfo 4 TESTPOOL 0x100 -pn=255").status(0)
        .stored_default_except({{"partinfo[4].poolname", "TESTPOOL"}, {"partinfo[4].pn", "255"},
                                {"partinfo[4].size", "256"}}),
    refused("partinfo 4 P 0x100000000", kPartinfoSyntax),
    refused("partinfo 4 TESTPOOL 0x100 -pn=256", "partinfo action: pn invalid.\n"),
    refused("partinfo 22 P 1", kPartinfoSyntax),
    refused("partinfo 4 P 12k", kPartinfoSyntax),
    command("partinfo 4 ABCDEFGHIJKLMNOPQRST 010 -fstype=abcdefghijkl -mount=/mnt/" + std::string(35, 'm') + " -bogus")
        .status(0)
        .stored_default_except({{"partinfo[4].poolname", "ABCDEFGHIJKLMNOP"}, {"partinfo[4].pn", "4"},
                                {"partinfo[4].size", "8"}, {"partinfo[4].mountpnt", "/mnt/" + std::string(26, 'm')},
                                {"partinfo[4].fstype", "abcdefghi"}}),
};

TEST(SetEdit, Edits)
{
    KOR_SANDBOX_OR_SKIP();
    for (const Case& edit : kEdits) {
        Device d;
        d.with_default_layout();
        cli::run(edit, d);
    }
}

const std::string kHead = "# KOR Partion Set CSV version 1.0\n# Selected Partition Set: ",
                  kColumns = "# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n",
                  kNothing = ",0x00000000,0x00000000,0.0,0,\n", kLength1 = ",0x00000000,0x00000001,",
                  kRoots = "13,ROOTS,13,0x0D220000,0x04000000,/mnt/r,ext4,0x00000000,0x00001000,2.1,7,\n",
                  kSet1 = kHead + "1\n" + kColumns + "11,KNLS,11" + kLength1 + "/,ext4" + kNothing + "12,DTS,12" +
                          kLength1 + "/mnt/dts," + kNothing + kRoots + "14,APPLS,14" + kLength1 + "/mnt/appl,nosuchfs" +
                          kNothing + "# End of list\n",
                  kPif = "getpartset action: PIF could not parse or too long.\n", kA100(100, 'a'),
                  kMounting = "KOR: Mounting /dev/mmcblk0p", kMountRoot = kMounting + "13 on /mnt/r as ext4...",
                  kMountAppl = kMounting + "14 on /mnt/appl as nosuchfs...",
                  kNoDevice = kMountAppl + " FAILED: No such device\n";

// The exports and mounting, in this order on one device: set 1 is edited first, p13 holds an ext4 file system.
const Case kExports[] = {
    command("partset 1 SET1 -refs=11,12,13,14 -meta=1.2.3").status(0).stdout_is(""),
    command("partinfo 11 KNLS 1 -mount=/ -fstype=ext4").status(0).stdout_is(""),
    command("partinfo 12 DTS 1 -mount=/mnt/dts").status(0).stdout_is(""),
    command("partinfo 14 APPLS 1 -mount=/mnt/appl -fstype=nosuchfs").status(0).stdout_is(""),
    command("partinfo 13 ROOTS 0x4000000 -offset=D220000 -mount=/mnt/r -fstype=ext4 -meta=2.1.7 -metacrc=0xBEEF "
            "-metalength=4096").status(0).stdout_is(""),
    // Word 2 begins with "-", so it is the only PIF candidate: not a PIF, and word 3 is not looked at.
    command("getpartset 1 -x").status(0).stdout_is(kSet1),
    command("getpartset 1 -x -pif=pidx").status(0).stdout_is(kSet1),
    command("getpartset 1 ROOT").status(0).stdout_is(""),
    command("getpartset active").status(0).stdout_is(kHead + "0\n" + kColumns + "# End of list\n"),
    command("getpartset 1 ROOTS").status(0).stdout_is(kRoots),
    command("getpartset 1 ROOTS -pif=pidx,crc,ver,ver_major,ver_minor,build_num,len_dec,mountpnt,fstype,offset,size,"
            "build_id,size_dec").status(0)
        .stdout_is("13,,2.01,2,01,7,4096,/mnt/r,ext4,0x0D220000,0x04000000,,67108864\n"),
    command("getpartset 1 ROOTS -pif=" + kA100.substr(6) + ",pidx").status(0)  // a list of 99 characters
        .stdout_is(",13\n"),
    command("getrh 1").status(0)
        .stdout_is("# KOR Release Header CSV version 1.0\n# Selected Partition Set: 1\n"
                   "# ver,build,build_id,build_time\n1.2,3,,1970.01.01 00:00:00\n# End of list\n"),
    command("getrh SET1 -pif=ver,build_time,x").status(0).stdout_is("1.02,1970.01.01 00:00:00,\n"),
    command("getpartset").status(1).stderr_is("getpartset action: SETIDX is missing.\n"),
    command("getrh 3").status(1).stderr_is("getrh: invalid set idx?\n"),
    command("getpartset SET1").status(1).stderr_is("getpartset action: SETIDX is illegal.\n"),
    command("getpartset 1 -pif=" + kA100).status(1).stderr_is(kPif),
    command("getpartset 1 ROOTS -pif=a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a,a").status(1).stderr_is(kPif),
    command("getrh").status(1).stderr_is("getrh: missing set idx?\n"),
    command("mount").status(1).stderr_is("mount: missing set idx?\n"),
    command("mount active").status(1).stderr_is("mount: invalid set idx?\n"),
    command("mount 1 -dryrun").status(0).stdout_is(kMountRoot + " DRYRUN\n" + kMountAppl + " DRYRUN\n"),
    command("partinfo 5 S 1 -metacrc=7 -metalength=9 -meta=1.2.3").status(0).stdout_is(""),
    command("partinfo 5").status(0).stdout_is("")  // clears the entry, keeps the recorded header
        .stored_nonzero_among({"partinfo[5]", "pinfometa[5]"},
                              {{"pinfometa[5].body_length", "9"}, {"pinfometa[5].body_crc", "7"},
                               {"pinfometa[5].sw_major", "1"}, {"pinfometa[5].sw_minor", "2"},
                               {"pinfometa[5].sw_build", "3"}}),
    command("mount SET1").status(0).stdout_is(kMountRoot + " OK\n" + kNoDevice),  // the dry run mounted nothing
    command("mount 1").status(0).stdout_is(kMountRoot + " PASS: Already mounted or in use (EBUSY)\n" + kNoDevice),
};

TEST(SetEdit, ExportsAndMount)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout();
    ASSERT_EQ(d.run({"sh", "-c", "mke2fs -q -t ext4 /dev/mmcblk0p13 && mkdir -p /mnt/r /mnt/appl"}).status, 0);
    for (const Case& c : kExports) cli::run(c, d);
    EXPECT_EQ(d.run({"umount", "/mnt/r"}).status, 0);
}

}  // namespace
