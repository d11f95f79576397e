// Signing as a release pipeline does it: keys from openssl, images from the mkvelk tool, offline signatures made by
// openssl and put back by mkvelk, and kor velkinfo -all as the check. openssl also verifies what mkvelk signed: an
// independent verifier.
#include <cstdlib>
#include <cstring>

#include "support/sandbox.h"
#include "support/signing.h"
#include "velk/velk_sig.h"

using signing::bytes;

namespace {

bool has(const std::string& haystack, const std::string& needle) { return haystack.find(needle) != std::string::npos; }

// Tools run in the sandbox's work directory, with files named relative to it; mkvelk (and kor) maybe under an emulator.
class Pipeline {
public:
    Pipeline() { dev.write_file(at + "kernel.bin", std::string(5001, 'k')), dev.write_file(at + "root.bin", "root"); }
    sandbox::RunResult sh(const std::string& command) { return dev.run({"sh", "-c", "cd " + at + " && " + command}); }
    sandbox::RunResult mkvelk(const std::string& args)
    {
        const char* emulator = std::getenv("KOR_TEST_EMULATOR");
        return sh((emulator ? std::string(emulator) + " " : "") + MKVELK_BINARY " " + args);
    }
    sandbox::RunResult velkinfo(const std::string& image, const std::string& keys)
    {
        std::vector<std::string> args = {"velkinfo", at + image, "-all"};
        if (!keys.empty()) args.push_back("-keys=" + at + keys);
        return dev.kor(args);
    }
    void key(const std::string& name)  // NAME.pem, NAME.pub
    {
        ASSERT_EQ(sh("openssl genpkey -algorithm ed25519 -out " + name + ".pem && openssl pkey -in " + name +
                     ".pem -pubout -out " + name + ".pub").status, 0);
    }
    std::string id_of(const std::string& pub)  // as libcrypto reads the key, not kor
    {
        const bytes key = mkvelk::public_key_from_pem(dev.read_file(at + pub));
        char hex[17];
        velk_key_id_text(mkvelk::key_id_of(key).data(), hex);
        return hex;
    }
    std::string file(const std::string& name) { return dev.read_file(at + name); }
    sandbox::Device dev;
    const std::string at = dev.workdir() + "/";
    const std::string release = "--version 1.2.3 --products p --date 0 --software kernel:1.2.3:kernel.bin:KNLS";
};

// Byte offset of part 1 in an image and of what follows it.
std::pair<size_t, size_t> part1_of(const std::string& img)
{
    const auto u32 = [&](size_t at) { uint32_t v; std::memcpy(&v, &img[at], 4); return v; };
    const auto span = [&](size_t at) { return size_t(u32(at + 4) >> 16) + ((u32(at + 8) + 3) & ~3u); };
    const size_t p1 = 24 + span(24);
    return {p1, p1 + span(p1)};
}

TEST(MkvelkSigning, SignedByMkvelkVerifiedByOpenssl)
{
    KOR_SANDBOX_OR_SKIP();
    Pipeline p;
    p.key("k1");
    auto r = p.mkvelk("-o s.velk " + p.release + " --sign k1.pem");
    EXPECT_EQ(r.out, "s.velk: 5556 bytes, 4 content parts, signed by " + p.id_of("k1.pub") + "\n") << r.err;
    r = p.velkinfo("s.velk", "k1.pub");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "manifest entries........: 3\nsignature key id........: " + p.id_of("k1.pub") + " (" + p.at +
                           "k1.pub)\nsignature...............: verified\n")) << r.out;
    // The manifest as mkvelk extracts it, the signature as the image holds it, the check as openssl makes it.
    ASSERT_EQ(p.mkvelk("--manifest s.velk m.bin").status, 0);
    const std::string img = p.file("s.velk"), manifest = p.file("m.bin");
    const size_t at = img.find(manifest);
    ASSERT_NE(at, std::string::npos);
    p.dev.write_file(p.at + "s.sig", img.substr(at + manifest.size() + 4 + 8, 64));
    r = p.sh("openssl pkeyutl -verify -pubin -inkey k1.pub -rawin -in m.bin -sigfile s.sig");
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(has(r.out, "Signature Verified Successfully")) << r.out;
}

// The offline (HSM) flow: an image with room for signatures, its manifest signed elsewhere, the signature put back.
TEST(MkvelkSigning, OfflineSignatureAddedLater)
{
    KOR_SANDBOX_OR_SKIP();
    Pipeline p;
    p.key("k1"), p.key("k2");
    auto r = p.mkvelk("-o l.velk " + p.release + " --sign-later");
    EXPECT_EQ(r.out, "l.velk: 5484 bytes, 4 content parts, to be signed (--sign-later)\n") << r.err;
    EXPECT_EQ(p.velkinfo("l.velk", "k2.pub").status, 15);
    ASSERT_EQ(p.mkvelk("--manifest l.velk m.bin").status, 0);
    ASSERT_EQ(p.sh("openssl pkeyutl -sign -inkey k2.pem -rawin -in m.bin -out k2.sig").status, 0);
    ASSERT_EQ(p.sh("openssl pkeyutl -sign -inkey k1.pem -rawin -in m.bin -out k1.sig").status, 0);
    const std::string before = p.file("l.velk");
    r = p.mkvelk("--add-signature l.velk k2.pub k2.sig");
    EXPECT_EQ(r.out, "l.velk: 5556 bytes, signed by " + p.id_of("k2.pub") + " too\n") << r.err;
    const std::string after = p.file("l.velk");
    const auto [start, end] = part1_of(before);
    EXPECT_EQ(after.substr(24, start - 24), before.substr(24, start - 24)) << "part 0 changed";
    EXPECT_EQ(after.substr(end + 72), before.substr(end)) << "a part behind the signature part changed";
    r = p.velkinfo("l.velk", "k2.pub");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "signature...............: verified\n")) << r.out;
    // A second key signs the same release: the rotation of an old release.
    EXPECT_EQ(p.mkvelk("--add-signature l.velk k1.pub k1.sig").status, 0);
    EXPECT_EQ(p.velkinfo("l.velk", "k1.pub").status, 0);

    const std::string signed_twice = p.file("l.velk");
    const struct { const char* name; std::string args; std::string message; } refused[] = {
        {"signature of another key", "--add-signature l.velk k2.pub k1.sig", "does not verify with this public key"},
        {"signed by this key already", "--add-signature l.velk k2.pub k2.sig", "signed by this key already"},
        {"not a raw signature", "--add-signature l.velk k2.pub m.bin", "not a raw 64-byte Ed25519 signature"},
        {"private key given as public", "--add-signature l.velk k2.pem k2.sig", "not an Ed25519 public key"},
        {"image without signature part", "--manifest kernel.bin x.bin", "not a complete VELK image"},
    };
    for (const auto& row : refused) {
        r = p.mkvelk(row.args);
        EXPECT_EQ(r.status, 1) << row.name;
        EXPECT_TRUE(has(r.err, row.message)) << row.name << ": " << r.err;
        EXPECT_EQ(p.file("l.velk"), signed_twice) << row.name;
    }
}

TEST(MkvelkSigning, CommandLineRefusals)
{
    KOR_SANDBOX_OR_SKIP();
    Pipeline p;
    p.key("k1");
    ASSERT_EQ(p.sh("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.pem").status, 0);
    p.dev.write_file(p.at + "old.korm", "2,KNLS,0,-,-,-,1.2.3,1\n");
    const struct { const char* name; std::string args; std::string message; } rows[] = {
        {"not an Ed25519 key", " --sign ec.pem", "--sign 'ec.pem': not an Ed25519 key"},
        {"no such key", " --sign gone.pem", "--sign 'gone.pem': cannot open it"},
        {"the same key twice", " --sign k1.pem --sign k1.pem", "--sign 'k1.pem' given twice"},
        {"five keys", " --sign a --sign b --sign c --sign d --sign e", "at most 4 --sign keys"},
        {"both ways at once", " --sign k1.pem --sign-later", "--sign-later and --sign exclude each other"},
    };
    for (const auto& row : rows) {
        const auto r = p.mkvelk("-o bad.velk " + p.release + row.args);
        EXPECT_EQ(r.status, 1) << row.name;
        EXPECT_TRUE(has(r.err, row.message)) << row.name << ": " << r.err;
        EXPECT_FALSE(p.dev.exists(p.at + "bad.velk")) << row.name;
    }
    // A descriptor written for an unsigned image names the kernel 2; signed, it is part 3.
    const auto r = p.mkvelk("-o bad.velk --version 1.2.3 --products p --software kernel:1.2.3:kernel.bin --sign k1.pem "
                            "--korm old.korm");
    EXPECT_TRUE(has(r.err, "content index 2 must name a content part after the descriptor (3 to 3)")) << r.err;
}

// velkinfo -all with and without keys: the flags, the manifest lines and the verdict; 15 where an install refuses.
TEST(VelkinfoSigned, VerdictFlagsAndStatus)
{
    KOR_SANDBOX_OR_SKIP();
    const signing::Key& key = signing::old_key();
    const signing::Release rel({&key});
    signing::parts tampered = rel.signed_parts;
    tampered[3].body[0] ^= 1;
    const std::string flags1 = "covered_by_signature....: 1\nvalidated_by_signature..: 1\n",
                      flags0 = "covered_by_signature....: 0\nvalidated_by_signature..: 0\n";
    const struct { const char* name; bytes image; bool trusted; int status; std::vector<std::string> out;
                   std::string err; } rows[] = {
        {"signed, trusted key", rel.image(), true, 0, {"Content Part: 0, type 1, name release\nvalid...................: 1\n"
         + flags1, "signature key id........: " + key.id_hex + " (/etc/kor/keys/release.pub)\n"
         "signature...............: verified\n", "Content Part: 5, type 4, name appl\nvalid...................: 1\n" +
         flags1}, ""},
        {"signed, no keys", rel.image(), false, 0, {"manifest entries........: 5\nsignature key id........: " + key.id_hex +
         " (unknown key)\nsignature...............: not checked (no keys)\n", "name appl\nvalid...................: 1\n" +
         flags0}, ""},
        {"a body changed", mkvelk::build_image(tampered), true, 15, {"signature...............: NOT VERIFIED\n",
         "name kernel\nvalid...................: 1\n" + flags0},  // its header holds the body's CRC
         "velkinfo: content part 3 does not match the signed manifest\n"},
        {"unsigned, keys on the device", rel.unsigned_image(), true, 15, {"name kernel\n"},
         "velkinfo: image is not signed; keys in /etc/kor/keys require a signature\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        sandbox::Device d;
        if (row.trusted) d.write_file(sandbox::kEtcKor + "/keys/release.pub", key.pem);
        d.write_file(d.workdir() + "/img.velk", signing::text(row.image));
        const auto r = d.kor({"velkinfo", d.workdir() + "/img.velk", "-all"});
        EXPECT_EQ(r.status, row.status) << r.err;
        for (const std::string& line : row.out) EXPECT_TRUE(has(r.out, line)) << line << "\n" << r.out;
        EXPECT_EQ(r.err, row.err);
    }
    // Without -all velkinfo reads the release header only, and no key file: a broken one does not matter.
    sandbox::Device d;
    d.write_file(sandbox::kEtcKor + "/keys/broken.pub", "not a key");
    d.write_file(d.workdir() + "/img.velk", signing::text(rel.image()));
    EXPECT_EQ(d.kor({"velkinfo", d.workdir() + "/img.velk"}).status, 0);
    const auto r = d.kor({"velkinfo", d.workdir() + "/img.velk", "-all"});
    EXPECT_EQ(r.status, 18);
    EXPECT_EQ(r.err, "velkinfo: cannot use key file /etc/kor/keys/broken.pub\n");
}

}  // namespace
