// Signed installs on a sandboxed device, from a file and by http from nginx: what a trusted key did not sign is never
// written, whatever was changed in the image, and the device's keys, its minimum release and the partitions it keeps
// are checked as an operator would expect.
#include <filesystem>
#include <functional>
#include <memory>

#include "base/fileutil.h"
#include "support/servers.h"
#include "support/signing.h"

using signing::bytes;
using signing::Key;
using signing::parts;
using signing::Release;
using signing::text;

namespace {

const Key& old_key = signing::old_key();
const Key& new_key = signing::new_key();
const Key& other_key = signing::other_key();
const std::string kKeyDir = sandbox::kEtcKor + "/keys";

// A device with the default layout and an image it installs into set 1, from a file or by http (nginx, ranges on).
class Target {
public:
    Target(const bytes& image, bool http) : world_(shell(image))
    {
        if (http) server_ = std::make_unique<servers::Daemon>(world_, "http");
        if (server_) { EXPECT_TRUE(server_->pid) << server_->error; }
    }
    sandbox::Device& dev() { return world_.dev; }
    std::string source() const { return server_ ? server_->url("img.velk") : world_.file; }
    const servers::Daemon* server() const { return server_.get(); }
    void serve(const bytes& image) { dev().write_file(world_.file, text(image)); }
    void trust(const Key& k, const std::string& name = "release") { dev().write_file(kKeyDir + "/" + name + ".pub", k.pem); }
    void forget_keys() { std::filesystem::remove_all(kKeyDir); }
    sandbox::RunResult install(std::vector<std::string> args = {}, const sandbox::RunOptions& o = {})
    {
        args.insert(args.begin(), {"install", source(), "1"});
        return dev().kor(args, o);
    }
    // What an install may change: the start of every partition, the hostconfig with its flags.
    std::vector<bytes> state()
    {
        std::vector<bytes> s;
        for (int pn : {3, 4, 5, 6, 7, 8, 11, 12, 13, 14, 15, 16, 17, 18})
            s.push_back(dev().read(sandbox::Device::part(pn), 0, pn < 5 ? 0x40000 : 0x10000));
        return s;
    }

private:
    static const servers::Release& shell(const bytes& image)  // servers' world serves whatever image it is given
    {
        static servers::Release r({64});
        r.image = text(image);
        return r;
    }
    servers::World world_;
    std::unique_ptr<servers::Daemon> server_;
};

bool has(const std::string& haystack, const std::string& needle) { return haystack.find(needle) != std::string::npos; }

struct Tamper {
    const char* name;
    std::function<void(parts&)> change;  // the image is laid out again afterwards: every CRC is right
    std::string message;
};

TEST(Signing, TamperedImagesAreRefusedBeforeAnyWrite)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel({&old_key});
    const std::string untrusted = "install: no trusted key signed this image (key ids " + old_key.id_hex + ")\n";
    const Tamper rows[] = {
        {"kernel body byte flipped", [](parts& p) { p[3].body[100] ^= 1; },
         "install: content part 3 does not match the signed manifest\n"},
        {"root header: software version raised", [](parts& p) { p[4].header_extra[1] ^= 1; },
         "install: content part 4 does not match the signed manifest\n"},
        {"part appended", [](parts& p) { p.push_back(mkvelk::data("extra", bytes(10, 1))); },
         "install: content part 6 is not in the signed manifest\n"},
        {"last part removed", [](parts& p) { p.pop_back(); },
         "install: image lacks content part 5 of the signed manifest\n"},
        {"kernel and root swapped", [](parts& p) { std::swap(p[3], p[4]); },
         "install: content part 3 does not match the signed manifest\n"},
        {"root from another signed release", [](parts& p) { p[4] = Release({&old_key}, "1.0.1", 2).signed_parts[4]; },
         "install: content part 4 does not match the signed manifest\n"},
        {"manifest byte flipped", [](parts& p) { p[1].body[100] ^= 1; }, untrusted},
        {"signature byte flipped", [](parts& p) { p[1].body.back() ^= 1; }, untrusted},
    };
    for (bool http : {false, true}) {
        Target t(rel.image(), http);  // one device for all rows: a refusal leaves it as it was
        t.trust(old_key);
        for (const Tamper& row : rows) {
            SCOPED_TRACE(std::string(row.name) + (http ? ", http" : ", file"));
            parts p = rel.signed_parts;
            row.change(p);
            t.serve(mkvelk::build_image(p));
            const auto before = t.state();
            const auto r = t.install();
            EXPECT_EQ(r.status, 15) << r.err;
            EXPECT_TRUE(has(r.err, row.message)) << r.err;
            EXPECT_FALSE(has(r.out, "Writing out")) << r.out;
            EXPECT_TRUE(t.state() == before) << "a device byte changed";
        }
    }
}

TEST(Signing, SignedReleaseInstallsFromFileAndHttp)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel({&old_key});
    for (bool http : {false, true}) {
        SCOPED_TRACE(http ? "http" : "file");
        Target t(rel.image(), http);
        t.trust(old_key);
        const auto r = t.install();
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(has(r.err, "install: signed by key " + old_key.id_hex + " (" + kKeyDir + "/release.pub)\n")) << r.err;
        const int parts_at[][2] = {{3, 11}, {4, 13}, {5, 14}};  // content part, partition
        for (const auto& [cp, pn] : parts_at)
            EXPECT_TRUE(t.dev().read(sandbox::Device::part(pn), 0, rel.body(cp).size()) == rel.body(cp)) << pn;
    }
}

struct Shape {
    const char* name;
    std::function<bytes()> image;
    int status;
    std::string message;
};

bytes with_signature_part(const std::function<void(mkvelk::part&)>& change)
{
    parts p = Release({&old_key}).signed_parts;
    change(p[1]);
    return mkvelk::build_image(p);
}

TEST(Signing, SignaturePartShape)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel({&old_key});
    const size_t part1_at = 24 + mkvelk::part_bytes(rel.signed_parts[0]).size();
    const size_t count_at = 16 + 72 * 5;  // behind the manifest of E = 5 entries
    const Shape rows[] = {
        {"unsigned image", [&] { return rel.unsigned_image(); }, 15,
         "install: image is not signed; keys in /etc/kor/keys require a signature\n"},
        {"algorithm 2 (ECDSA P-256, reserved)", [] { return with_signature_part([](auto& s) { s.header_extra[0] = 2; }); },
         15, "install: signature algorithm 2 is not supported\n"},
        {"algorithm 255", [] { return with_signature_part([](auto& s) { s.header_extra[0] = 255; }); }, 15,
         "install: signature algorithm 255 is not supported\n"},
        {"body one byte longer", [] { return with_signature_part([](auto& s) { s.body.push_back(0); }); }, 15,
         "install: signature part is malformed\n"},
        {"no signature (S = 0)", [] { return Release({}).image(); }, 15,
         "install: no trusted key signed this image (key ids none)\n"},
        {"five signatures (S = 5)", [&] { return with_signature_part([&](auto& s) {
             s.body[count_at] = 5;
             for (int i = 0; i < 4; ++i) s.body.insert(s.body.end(), s.body.end() - 72, s.body.end());
         }); }, 15, "install: signature part is malformed\n"},
        {"two signatures counted, one present", [&] { return with_signature_part([&](auto& s) { s.body[count_at] = 2; }); },
         15, "install: signature part is malformed\n"},
        {"signature part at index 3", [] {
             parts p = Release({&old_key}).signed_parts;
             std::rotate(p.begin() + 1, p.begin() + 2, p.begin() + 4);
             return mkvelk::build_image(p);
         }, 15, "install: image is not signed; keys in /etc/kor/keys require a signature\n"},
        {"file cut inside the signature part", [&] { bytes b = rel.image(); b.resize(part1_at + 36 + 50); return b; }, 9,
         "install: incomplete VELK\n"},
    };
    Target t(rel.image(), false);  // one device for all rows: a refusal leaves it as it was
    t.trust(old_key);
    for (const Shape& row : rows) {
        SCOPED_TRACE(row.name);
        t.serve(row.image());
        const auto before = t.state();
        const auto r = t.install();
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_TRUE(has(r.err, row.message)) << r.err;
        EXPECT_TRUE(t.state() == before) << "a device byte changed";
    }
}

// By http the refusal comes at part 1's header: the bodies behind it are not downloaded.
TEST(Signing, UnsignedImageRefusedBeforeItsBodiesArrive)
{
    KOR_SANDBOX_OR_SKIP();
    parts p = Release({}).unsigned_parts;
    p[2].body.resize(8 << 20, 0x5A);  // the kernel: 8 MiB
    const bytes image = mkvelk::build_image(p);
    Target t(image, true);
    t.trust(old_key);
    const auto r = t.install();
    EXPECT_EQ(r.status, 15) << r.err;
    EXPECT_TRUE(has(r.err, "install: image is not signed")) << r.err;
    EXPECT_FALSE(has(r.err, "curl returned")) << r.err;
    const auto log = t.server()->log(1);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_LT(log[0].bytes, image.size() / 2) << "the kernel was downloaded";
}

struct KeyCase {
    const char* name;
    std::vector<std::pair<std::string, std::string>> files;  // path, content
    std::vector<const Key*> signers;
    bool signed_image;
    std::vector<std::string> args;
    int status;
    std::string message;
};

TEST(Signing, KeysAndRotation)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string p256 =
        "-----BEGIN PUBLIC KEY-----\nMFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEy24km06jLISqBG5xL0RCCPb3YIG1\n"
        "x9YxBhv65gPqkWrme4RQ51sXrochOHvCBIekWtrelIbEyCghQ8fxQ007Xg==\n-----END PUBLIC KEY-----\n";
    const std::string work = "/run/kor/work";
    std::vector<std::pair<std::string, std::string>> nine;
    for (int i = 0; i < 9; ++i) nine.push_back({kKeyDir + "/k" + std::to_string(i) + ".pub", new_key.pem});
    const KeyCase rows[] = {
        {"wrong key", {{kKeyDir + "/release.pub", other_key.pem}}, {&old_key}, true, {}, 15,
         "install: no trusted key signed this image (key ids " + old_key.id_hex + ")\n"},
        {"rotation: signed by old and new, the device has the new key", {{kKeyDir + "/new.pub", new_key.pem}},
         {&old_key, &new_key}, true, {}, 0, "install: signed by key " + new_key.id_hex + " (" + kKeyDir + "/new.pub)\n"},
        {"rotation: the device still has the old key", {{kKeyDir + "/old.pub", old_key.pem}}, {&old_key, &new_key},
         true, {}, 0, "install: signed by key " + old_key.id_hex + " (" + kKeyDir + "/old.pub)\n"},
        {"a key file that is no Ed25519 key", {{kKeyDir + "/a.pub", new_key.pem}, {kKeyDir + "/b.pub", p256}},
         {&new_key}, true, {}, 18, "install: cannot use key file " + kKeyDir + "/b.pub\n"},
        {"files not named *.pub are no keys", {{kKeyDir + "/a.pub", new_key.pem}, {kKeyDir + "/README", "x"},
         {kKeyDir + "/.a.pub", "x"}, {kKeyDir + "/a.pub.old", "x"}}, {&new_key}, true, {}, 0, "install: signed by key "},
        {"more than 8 keys", nine, {&new_key}, true, {}, 18, "install: more than 8 keys in " + kKeyDir + "\n"},
        {"-keys= names a file", {{work + "/my.pub", new_key.pem}}, {&new_key}, true, {"-keys=" + work + "/my.pub"}, 0,
         "install: signed by key " + new_key.id_hex + " (" + work + "/my.pub)\n"},
        {"-keys= names a directory and replaces the device's", {{work + "/k/x.pub", new_key.pem},
         {kKeyDir + "/release.pub", other_key.pem}}, {&new_key}, true, {"-keys=" + work + "/k"}, 0,
         "install: signed by key " + new_key.id_hex + " (" + work + "/k/x.pub)\n"},
        {"-keys= where there is nothing", {}, {&new_key}, true, {"-keys=/nonexistent"}, 18,
         "install: no keys in /nonexistent\n"},
        {"-keys= longer than 99 characters", {}, {&new_key}, true, {"-keys=/" + std::string(99, 'k')}, 1,
         "-keys value too long (at most 99 characters).\n"},
        {"-f does not let an unsigned image through", {{kKeyDir + "/new.pub", new_key.pem}}, {}, false, {"-f"}, 15,
         "install: image is not signed; keys in /etc/kor/keys require a signature\n"},
        {"no keys: a signed image installs unchecked", {}, {&new_key}, true, {}, 0,
         "install: image is signed, but no keys are configured: signature not checked\n"},
    };
    Target t(Release({}).image(), false);  // one device; each row brings its own keys and image
    for (const KeyCase& row : rows) {
        SCOPED_TRACE(row.name);
        const Release rel(row.signers);
        t.serve(row.signed_image ? rel.image() : rel.unsigned_image());
        t.forget_keys(), std::filesystem::remove_all(work + "/k");
        for (const auto& [path, content] : row.files) t.dev().write_file(path, content);
        const auto before = t.state();
        const auto r = t.install(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_TRUE(has(r.err, row.message)) << r.err;
        if (row.status != 0) { EXPECT_TRUE(t.state() == before) << "a device byte changed"; }
    }
}

// Fail closed: keys that cannot be used stop every install, a build that requires keys refuses to run without them.
TEST(Signing, NoLibcryptoAndRequiredKeys)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel({&new_key});
    const char* asan = std::getenv("ASAN_OPTIONS");
    const auto without_libcrypto = [&](sandbox::Device& d) {
        return sandbox::RunOptions().set("LD_PRELOAD", d.stage(KOR_PRELOAD_no_libcrypto))
            .set("ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0");
    };
    {
        SCOPED_TRACE("keys, no libcrypto");
        Target t(rel.image(), false);
        t.trust(new_key);
        const auto before = t.state();
        const auto r = t.install({}, without_libcrypto(t.dev()));
        EXPECT_EQ(r.status, 18) << r.err;
        EXPECT_TRUE(has(r.err, "install: signature checks need libcrypto.so.3: ")) << r.err;
        EXPECT_TRUE(t.state() == before);
    }
    {
        SCOPED_TRACE("no keys, no libcrypto: libcrypto is not even opened");
        Target t(rel.unsigned_image(), false);
        const auto r = t.install({}, without_libcrypto(t.dev()));
        EXPECT_EQ(r.status, 0) << r.err;
    }
    const struct { const char* name; bool key; bool signed_image; int status; std::string message; } required[] = {
        {"no keys", false, true, 18, "install: no keys in /etc/kor/keys\n"},
        {"a key, signed image", true, true, 0, "install: signed by key "},
        {"a key, unsigned image", true, false, 15, "install: image is not signed"},
    };
    for (const auto& row : required) {
        SCOPED_TRACE(std::string("KOR_REQUIRE_SIGNATURE build, ") + row.name);
        Target t(row.signed_image ? rel.image() : rel.unsigned_image(), false);
        if (row.key) t.trust(new_key);
        const auto r = t.dev().run({KOR_REQUIRE_SIGNATURE_BINARY, "install", t.source(), "1"});
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_TRUE(has(r.err, row.message)) << r.err;
    }
}

const std::vector<size_t> kLarge = {1000003, 1500001, 700002};  // by http each body comes in pieces of its own

// A partition the plan keeps must hold what the manifest signed, not merely something with the same CRC32.
TEST(Signing, KeptPartitionsAreCheckedBySha256)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel({&old_key}, "1.0.1", 1, kLarge);
    const bytes& kernel = rel.body(3);
    bytes changed = kernel;
    changed[10] ^= 0xFF;
    const bytes forged = signing::forge_crc(changed, 200, crc32_calc(0, kernel.data(), uint32_t(kernel.size())));
    ASSERT_EQ(crc32_calc(0, forged.data(), uint32_t(forged.size())), crc32_calc(0, kernel.data(), uint32_t(kernel.size())));
    ASSERT_NE(forged, kernel);
    const std::string sha = "SHA-256 of partition 11 does not match the signed manifest\n";
    const struct { const char* name; bool http; bool forge; int status; std::vector<std::string> messages; bytes p11; } rows[] = {
        {"http, nothing changed: every body skipped, every partition matches", true, false, 0, {"  0 should not be "
         "downloaded, SKIP\n", "  2 should not be downloaded, SKIP\n"}, kernel},
        {"http, kernel body skipped: nothing to repair with", true, true, 14, {sha, "CRC32 validation of partition 11 "
         "failed. Only fixable with a non-partial VELK.\n"}, forged},
        {"file, kernel body in memory: written again", false, true, 0, {sha, "CRC32 validation for partition 11 failed "
         "marking it for reinstall\n"}, kernel},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Target t(rel.image(), row.http);
        t.trust(old_key);
        ASSERT_EQ(t.install().status, 0);
        if (row.forge) t.dev().write(sandbox::Device::part(11), 0, forged);
        const auto r = t.install();
        EXPECT_EQ(r.status, row.status) << r.err;
        for (const std::string& m : row.messages) EXPECT_TRUE(has(r.err, m)) << m << r.err;
        EXPECT_EQ(has(r.err, sha), row.forge) << r.err;
        EXPECT_TRUE(t.dev().read(sandbox::Device::part(11), 0, kernel.size()) == row.p11);
    }
}

// In range mode a header is matched before a skip acts on it: a changed header of an installed part is refused at
// once, and nothing behind it is asked for.
TEST(Signing, HeaderOfASkippedPartIsMatchedBeforeTheSkip)
{
    KOR_SANDBOX_OR_SKIP();
    const Release rel({&old_key}, "1.0.1", 1, kLarge);
    Target t(rel.image(), true);
    t.trust(old_key);
    ASSERT_EQ(t.install().status, 0);
    const auto skips = t.install();  // the same image again: the installed bodies are skipped
    ASSERT_TRUE(skips.status == 0 && has(skips.err, "  0 should not be downloaded, SKIP\n")) << skips.err;
    parts p = rel.signed_parts;
    p[3].header_extra[4] ^= 1;  // the kernel's build id; its version stays, so the plan keeps the installed one
    t.serve(mkvelk::build_image(p));
    const size_t before = t.server()->log(1).size();
    const auto r = t.install();
    EXPECT_EQ(r.status, 15) << r.err;
    EXPECT_TRUE(has(r.err, "install: content part 3 does not match the signed manifest\n")) << r.err;
    EXPECT_FALSE(has(r.err, "SKIP")) << r.err;
    EXPECT_EQ(t.server()->log(before + 1).size(), before + 1) << "a range request followed";
}

TEST(Signing, MinimumRelease)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string floor_file = sandbox::kEtcKor + "/min-release";
    parts raised = Release({&old_key}).signed_parts;
    raised[0].header_extra[0] = 2;  // the release header now says 2.0-1
    const struct { const char* name; std::string floor; bytes image; bool key; std::vector<std::string> args; int status;
                   std::string message; } rows[] = {
        {"older than the floor", "1.0.2\n", Release({&old_key}).image(), true, {}, 7,
         "install: release 1.0-1 is older than the minimum 1.0-2 (/etc/kor/min-release)\n"},
        {"older, -downgrade", "1.0.2\n", Release({&old_key}).image(), true, {"-downgrade"}, 0, "install: release 1.0-1"},
        {"equal to the floor", "1.0.1", Release({&old_key}).image(), true, {}, 0, "install: release 1.0-1"},
        {"-minver lower than the floor: the floor holds", "1.0.2\n", Release({&old_key}).image(), true,
         {"-minver=1.0.0"}, 7, "is older than the minimum 1.0-2"},
        {"-downgrade leaves -minver in force", "1.0.2\n", Release({&old_key}).image(), true,
         {"-downgrade", "-minver=1.0.5"}, 7, "install: Version in release header lower than 1.0-5\n"},
        {"floor file unreadable", "1.0\n", Release({&old_key}).image(), true, {}, 7,
         "install: cannot read the minimum release from /etc/kor/min-release\n"},
        {"version raised in a signed release header", "1.0.2\n", mkvelk::build_image(raised), true, {}, 15,
         "install: content part 0 does not match the signed manifest\n"},
        {"no keys: the floor holds all the same", "1.0.2\n", Release({}).unsigned_image(), false, {}, 7,
         "is older than the minimum 1.0-2"},
    };
    Target t(Release({}).image(), false);  // one device; each row brings its own floor and image
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        t.serve(row.image);
        t.forget_keys();
        if (row.key) t.trust(old_key);
        t.dev().write_file(floor_file, row.floor);
        const auto r = t.install(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_TRUE(has(r.err, row.message)) << r.err;
    }
}

}  // namespace
