// Editing sets and partition entries, the CSV exports and mounting a set,
// through the real kor on a sandboxed device.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <syslog.h>
#include <vector>

#include "support/sandbox.h"

using sandbox::Device;
using sandbox::RunResult;
using words = std::vector<std::string>;

namespace {

// The stored "KOR data" body, read from the device by its byte tables: the
// body starts 32 bytes after its content part, whose name is at byte 12.
struct stored {
    sandbox::bytes b;
    explicit stored(const Device& d)
    {
        sandbox::bytes img = d.read(Device::part(3), 0, 5120);
        static const char kName[] = "KOR data";
        for (size_t i = 24; i + 16 + 3240 < img.size(); i += 4) {
            if (std::memcmp(&img[i + 12], kName, sizeof kName) != 0) continue;
            b.assign(img.begin() + i + 32, img.begin() + i + 32 + 3240);
            return;
        }
        ADD_FAILURE() << "no KOR data body on the device";
        b.assign(3240, 0);
    }
    std::string text(size_t at, size_t n) const
    {
        return std::string(reinterpret_cast<const char*>(&b[at]),
                           strnlen(reinterpret_cast<const char*>(&b[at]), n));
    }
    uint32_t u32(size_t at) const
    {
        return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24;
    }
    // name|refs|release version of set s as one text.
    std::string set(int s) const
    {
        std::string t = text(1 + 38 * s + 1, 15) + "|";
        for (int i = 0; i < 22 && int8_t(b[1 + 38 * s + 16 + i]) != -1; i++)
            t += std::to_string(int8_t(b[1 + 38 * s + 16 + i])) + " ";
        size_t o = 1700 + 44 * s;
        return t + "|" + std::to_string(b[o]) + "." + std::to_string(b[o + 1]) + "-" +
               std::to_string(b[o + 2] | b[o + 3] << 8);
    }
    // pool,pn,offset,size,mountpnt,fstype,crc,len,ver as one text.
    std::string entry(int i) const
    {
        size_t p = 116 + 72 * i, m = 1832 + 64 * i;
        char s[200];
        snprintf(s, sizeof s, "%s,%u,%X,%X,%s,%s,%u,%u,%u.%u-%u", text(p, 16).c_str(), b[p + 16],
                 u32(p + 20), u32(p + 24), text(p + 28, 32).c_str(), text(p + 60, 10).c_str(),
                 u32(m + 28), u32(m + 8), b[m + 32], b[m + 33], b[m + 34] | b[m + 35] << 8);
        return s;
    }
};

bool device_untouched(const Device& d)
{
    sandbox::bytes zero(5120, 0);
    return d.read(Device::part(3), 0, 5120) == zero && d.read(Device::part(4), 0, 5120) == zero;
}

// -refs= with n references 0, 1, ... (wrapping at 22).
std::string list(int n)
{
    std::string s = "-refs=";
    for (int i = 0; i < n; i++) s += (i ? "," : "") + std::to_string(i % 22);
    return s;
}

const char kPif[] = "getpartset action: PIF could not parse or too long.\n";

// A row: the words, the exit status, and what a success stores (set or
// entry text) or the message of a refusal.
struct Row {
    words args;
    int status;
    std::string expect;
};

// Each row on a fresh device: a refusal leaves the device untouched.
template <typename Stored>
void run_edit_rows(const std::vector<Row>& rows, Stored stored_text)
{
    for (const Row& row : rows) {
        Device d;
        d.with_default_layout();
        RunResult r = d.kor(row.args);
        EXPECT_EQ(r.status, row.status) << row.args[1] << r.err;
        if (row.status == 0) {
            EXPECT_EQ(stored_text(stored(d)), row.expect) << row.args[1];
            continue;
        }
        EXPECT_EQ(r.err, row.expect) << row.args[1];
        bool logged = false;
        for (const sandbox::LogLine& l : r.log) logged |= l.priority == LOG_ERR && l.text == row.expect;
        EXPECT_TRUE(logged) << row.args[1] << " not in syslog at LOG_ERR: " << r.log_text();
        EXPECT_TRUE(device_untouched(d)) << row.args[1];
    }
}

TEST(SetEditPartset, Rows)
{
    KOR_SANDBOX_OR_SKIP();
    const char* syntax = "partset action: wrong syntax.\n";
    const char* nan = "partset action: -refs= entry is not a number.\n";
    std::string all22 = "|";
    for (int i = 0; i < 22; i++) all22 += std::to_string(i) + " ";
    run_edit_rows(
        {
            {{"partset", "1", "SET1", "-refs=11,12,13,14"}, 0, "SET1|11 12 13 14 |0.0-0"},
            {{"partset", "1"}, 0, "||0.0-0"},
            {{"partset", "1", "-refs=11,12"}, 0, "-refs=11,12||0.0-0"},
            {{"partset", "1", "ABCDEFGHIJKLMNOPQRST"}, 0, "ABCDEFGHIJKLMN||0.0-0"},
            {{"partset", "1", "SET1", "-refs="}, 0, "SET1||0.0-0"},
            {{"partset", "0x1", "S", "-refs=0xb,014,13x,15"}, 0, "S|11 12 13 |0.0-0"},
            {{"partset", "1", "S", "-refs=5,6,-1,8", "-meta=1.2.300"}, 0, "S|5 6 |1.2-300"},
            {{"partset", "1", "S", list(22)}, 0, "S" + all22 + "|0.0-0"},
            {{"partset"}, 1, syntax},
            {{"partset", "x", "S"}, 1, syntax},
            {{"partset", "1x", "S"}, 1, syntax},
            {{"partset", "3", "S"}, 1, syntax},
            {{"partset", "-1", "S"}, 1, syntax},
            {{"partset", "1", "S", list(23)},
             1, "partset action: -refs= holds more than 22 references.\n"},
            {{"partset", "1", "S", "-refs=11,a"}, 1, nan},
            {{"partset", "1", "S", "-refs=11,,12"}, 1, nan},
            {{"partset", "1", "S", "-refs=11,22"},
             1, "partset action: -refs= entry 22 is out of range (-1..21).\n"},
        },
        [](const stored& s) {
            return s.set(1) + (s.set(2) == "SET2||0.0-0" ? "" : " set 2 changed");
        });
}

TEST(SetEditPartinfo, Rows)
{
    KOR_SANDBOX_OR_SKIP();
    const char* syntax = "partinfo action: wrong syntax.\n";
    const std::string m40 = "/mnt/" + std::string(35, 'm');
    run_edit_rows(
        {
            {{"partinfo", "4", "TESTPOOL", "0x100"}, 0, "TESTPOOL,4,0,100,,,0,0,0.0-0"},
            {{"partinfo", "4", "TESTPOOL", "0x100", "-pn=255"},
             0, "TESTPOOL,255,0,100,,,0,0,0.0-0"},
            {{"partinfo", "4", "TESTPOOL", "0x100", "-offset=1a0000", "-mount=/opt", "-fstype=ext4",
              "-meta=1.2.3", "-metacrc=305419896", "-metalength=4096"},
             0, "TESTPOOL,4,1A0000,100,/opt,ext4,305419896,4096,1.2-3"},
            {{"partinfo", "4", "ABCDEFGHIJKLMNOPQRST", "010", "-fstype=abcdefghijkl",
              "-mount=" + m40, "-bogus"},
             0, "ABCDEFGHIJKLMNOP,4,0,8," + m40.substr(0, 31) + ",abcdefghi,0,0,0.0-0"},
            {{"partinfo", "4", "TESTPOOL", "0x100", "-pn=256"},
             1, "partinfo action: pn invalid.\n"},
            {{"partinfo", "4", "TESTPOOL", "0x100", "-pn=-2"}, 1, "partinfo action: pn invalid.\n"},
            {{"partinfo"}, 1, syntax},
            {{"partinfo", "22", "P", "1"}, 1, syntax},
            {{"partinfo", "x"}, 1, syntax},
            {{"partinfo", "4", "P"}, 1, syntax},
            {{"partinfo", "4", "P", "12k"}, 1, syntax},
            {{"partinfo", "4", "P", "-1"}, 1, syntax},
            {{"partinfo", "4", "P", "0x100000000"}, 1, syntax},
            {{"partinfo", "4", "P", "1", "-offset=100000000"}, 1, syntax},
        },
        [](const stored& s) {
            return s.entry(4) +
                   (s.entry(5) == "SAFEKNLS,5,1A0000,800000,,,0,0,0.0-0" ? "" : " 5 changed");
        });
}

TEST(SetEditPartinfo, ClearKeepsContentHeaderAndDryrunWritesNothing)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout();
    EXPECT_EQ(d.kor({"partset", "1", "X", "-refs=1", "-dryrun"}).status, 0);
    EXPECT_EQ(d.kor({"partinfo", "4", "P", "1", "-dryrun"}).status, 0);
    EXPECT_EQ(d.kor({"partinfo", "5", "-dryrun"}).status, 0);
    EXPECT_TRUE(device_untouched(d));
    const words fill = {"partinfo", "5", "SAFEKNLS", "0x800000", "-metacrc=7", "-metalength=9",
                        "-meta=1.2.3"};
    ASSERT_EQ(d.kor(fill).status, 0);
    ASSERT_EQ(d.kor({"partinfo", "5"}).status, 0);
    EXPECT_EQ(stored(d).entry(5), ",0,0,0,,,7,9,1.2-3");
}

// Set 1 with the entries 11..14, entry 13 filled in.
void csv_layout(Device& d)
{
    d.with_default_layout();
    ASSERT_EQ(d.kor({"partset", "1", "SET1", "-refs=11,12,13,14", "-meta=1.2.3"}).status, 0);
    const words roots = {"partinfo", "13", "ROOTS", "0x4000000", "-offset=D220000", "-mount=/mnt/r",
                         "-fstype=ext4", "-meta=2.1.7", "-metacrc=0xBEEF", "-metalength=4096"};
    ASSERT_EQ(d.kor(roots).status, 0);
}

TEST(SetEditCsv, GetpartsetAndGetrh)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    csv_layout(d);
    const std::string rows11_14 =
        "11,KNLS,11,0x0C9E0000,0x00800000,,,0x00000000,0x00000000,0.0,0,\n"
        "12,DTS,12,0x0D1E0000,0x00040000,,,0x00000000,0x00000000,0.0,0,\n"
        "13,ROOTS,13,0x0D220000,0x04000000,/mnt/r,ext4,0x00000000,0x00001000,2.1,7,\n"
        "14,APPLS,14,0x11220000,0x04000000,,,0x00000000,0x00000000,0.0,0,\n";
    const std::string head = "# KOR Partion Set CSV version 1.0\n# Selected Partition Set: ";
    const std::string cols =
        "# pidx,pool,pn,offset,size,mountpnt,fstype,crc,len,ver,build,build_id\n";
    std::string names = "-pif=a";
    for (int i = 1; i < 20; i++) names += ",a";
    const Row rows[] = {
        {{"getpartset", "1"}, 0, head + "1\n" + cols + rows11_14 + "# End of list\n"},
        {{"getpartset", "active"}, 0, head + "0\n" + cols + "# End of list\n"},
        {{"getpartset", "1", "-pif="}, 0, head + "1\n" + cols + rows11_14 + "# End of list\n"},
        {{"getpartset", "1", "ROOTS"},
         0, "13,ROOTS,13,0x0D220000,0x04000000,/mnt/r,ext4,0x00000000,0x00001000,2.1,7,\n"},
        {{"getpartset", "1", "ROOT"}, 0, ""},
        {{"getpartset", "1", "-pif=pidx,pn,size_dec"},
         0, "11,11,8388608\n12,12,262144\n13,13,67108864\n14,14,67108864\n"},
        {{"getpartset", "1", "-x", "-pif=pidx"},
         0, head + "1\n" + cols + rows11_14 + "# End of list\n"},
        {{"getpartset", "1", "ROOTS",
          "-pif=pidx,crc,ver,ver_major,ver_minor,build_num,len,len_dec,mountpnt,fstype,offset,size,"
          "pool,build_id"},
         0, "13,,2.01,2,01,7,0x00001000,4096,/mnt/r,ext4,0x0D220000,0x04000000,ROOTS,\n"},
        {{"getrh", "1"},
         0, "# KOR Release Header CSV version 1.0\n# Selected Partition Set: 1\n"
         "# ver,build,build_id,build_time\n1.2,3,,1970.01.01 00:00:00\n# End of list\n"},
        {{"getrh", "SET1", "-pif=ver,build_time,x"}, 0, "1.02,1970.01.01 00:00:00,\n"},
        {{"getrh", "active", "-pif=ver_major,ver_minor,build_num,build_id"}, 0, "0,00,0,\n"},
        {{"getpartset"}, 1, "getpartset action: SETIDX is missing.\n"},
        {{"getpartset", "SET1"}, 1, "getpartset action: SETIDX is illegal.\n"},
        {{"getpartset", "3"}, 1, "getpartset action: SETIDX is illegal.\n"},
        {{"getpartset", "-1"}, 1, "getpartset action: SETIDX is illegal.\n"},
        {{"getpartset", "1", "-pif=" + std::string(100, 'a')}, 1, kPif},
        {{"getpartset", "1", "ROOTS", names}, 1, kPif},
        {{"getrh"}, 1, "getrh: missing set idx?\n"},
        {{"getrh", "SET9"}, 1, "getrh: invalid set idx?\n"},
        {{"getrh", "3"}, 1, "getrh: invalid set idx?\n"},
        {{"getrh", "1", "-pif=" + std::string(100, 'a')}, 1, kPif},
    };
    for (const Row& row : rows) {
        RunResult r = d.kor(row.args);
        EXPECT_EQ(r.status, row.status) << row.args.back();
        EXPECT_EQ(row.status ? r.err : r.out, row.expect) << row.args.back();
    }
    std::string ok99 = "-pif=" + std::string(94, 'a') + ",pidx";  // 99 characters of list
    EXPECT_EQ(d.kor({"getpartset", "1", "ROOTS", ok99}).out, ",13\n");
    // -v puts the reports before the CSV, on the same stream.
    std::string v = d.kor({"getpartset", "1", "ROOTS", "-v", "-pif=pidx"}).out;
    EXPECT_NE(v.find("Pools:\n"), std::string::npos);
    EXPECT_EQ(v.substr(v.size() - 7), "(0)\n13\n") << v;
}

TEST(SetEditMount, DryrunRealMountBusyAndFailure)
{
    KOR_SANDBOX_OR_SKIP();
    Device d;
    d.with_default_layout();
    ASSERT_EQ(d.kor({"partset", "1", "SET1", "-refs=11,12,13,14"}).status, 0);
    const words entries[] = {
        {"partinfo", "11", "KNLS", "1", "-mount=/", "-fstype=ext4"},
        {"partinfo", "12", "DTS", "1", "-mount=/mnt/dts"},
        {"partinfo", "13", "ROOTS", "1", "-mount=/mnt/root", "-fstype=ext4"},
        {"partinfo", "14", "APPLS", "1", "-mount=/mnt/appl", "-fstype=nosuchfs"},
    };
    for (const words& w : entries) ASSERT_EQ(d.kor(w).status, 0) << w[1];
    ASSERT_EQ(d.run({"mke2fs", "-q", "-t", "ext4", Device::part(13)}).status, 0);
    ASSERT_EQ(d.run({"mkdir", "-p", "/mnt/root", "/mnt/appl"}).status, 0);

    const std::string root = "KOR: Mounting /dev/mmcblk0p13 on /mnt/root as ext4...";
    const std::string appl = "KOR: Mounting /dev/mmcblk0p14 on /mnt/appl as nosuchfs...";
    const Row rows[] = {
        {{"mount", "1", "-dryrun"}, 0, root + " DRYRUN\n" + appl + " DRYRUN\n"},
        {{"mount", "SET1"}, 0, root + " OK\n" + appl + " FAILED: No such device\n"},
        {{"mount", "1"},
         0,
         root + " PASS: Already mounted or in use (EBUSY)\n" + appl + " FAILED: No such device\n"},
        {{"mount"}, 1, "mount: missing set idx?\n"},
        {{"mount", "active"}, 1, "mount: invalid set idx?\n"},
    };
    for (const Row& row : rows) {
        RunResult r = d.kor(row.args);
        EXPECT_EQ(r.status, row.status) << row.args.back();
        EXPECT_EQ(row.status ? r.err : r.out, row.expect) << row.args.back();
        if (row.args.back() == "-dryrun") {
            EXPECT_NE(d.run({"mountpoint", "-q", "/mnt/root"}).status, 0) << "nothing mounted";
        }
    }
    EXPECT_EQ(d.run({"umount", "/mnt/root"}).status, 0);
}

}  // namespace
