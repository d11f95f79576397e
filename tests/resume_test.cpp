// Installs over a link that fails: a scripted HTTP server drops the connection at chosen bytes of the image or
// answers a resumed request oddly. With -retries= kor resumes from the first byte it lacks and installs exactly what an
// undisturbed install does; without, or for a refusal, it ends with 16 and writes nothing.
#include <chrono>
#include <optional>

#include <syslog.h>

#include "support/servers.h"
#include "support/signing.h"

namespace {

using servers::Answer;
using servers::Drop;
using servers::count;
using servers::response;
using servers::strings;

constexpr size_t kBody = 120000;  // a multiple of 4: no padding behind a body

const servers::Release& rel()
{
    static const servers::Release r({kBody, kBody, kBody});
    return r;
}

size_t image_size() { return rel().image.size(); }
size_t body_start(int i) { return rel().ends[size_t(i)] - kBody; }

// A 206 for the request from byte `from` that sends `image` up to `to` (whole: to its end).
std::string partial(size_t from, size_t to, const std::string& image = rel().image)
{
    const std::string range = std::to_string(from) + "-" + std::to_string(image.size() - 1) + "/" +
                              std::to_string(image.size());
    return response("206 Partial Content\r\nContent-Range: bytes " + range, image.substr(from, to - from),
                    image.size() - from);
}

Answer whole(size_t from, const std::string& image = rel().image) { return {partial(from, image.size(), image)}; }
Answer dropped(size_t from, size_t at, const std::string& image = rel().image)  // ends behind byte at - 1
{
    return {partial(from, at, image), Drop::close};
}
Answer status(const std::string& line) { return {response(line, "")}; }
std::string from(size_t at) { return "bytes=" + std::to_string(at) + "-"; }

// One install from the scripted server, and everything it must show.
struct Fetch {
    explicit Fetch(std::string n) : name(std::move(n)) {}
    Fetch& installed() { preinstalled = true; return *this; }  // the release is in set 1 already: bodies are skipped
    Fetch& answers(std::vector<Answer> a) { served = std::move(a); return *this; }
    Fetch& args(strings a) { arguments = std::move(a); return *this; }
    Fetch& status(int s) { exit = s; return *this; }
    Fetch& stderr_has(std::string t) { error = std::move(t); return *this; }
    Fetch& ranges(strings r) { asked = std::move(r); return *this; }  // the Range header of each request, in order
    Fetch& notice(std::string t) { notices.push_back(std::move(t)); return *this; }  // a LOG_NOTICE datagram holding it
    Fetch& stall(int ms) { stall_ms = ms; return *this; }  // how long the server holds an answer open (default 5 s)
    Fetch& of(const servers::Release& r) { release = &r; return *this; }  // served instead of rel()
    Fetch& trusting(std::string pem) { key_pem = std::move(pem); return *this; }  // kor is given -keys= with it

    std::string name;
    bool preinstalled = false;
    std::vector<Answer> served;
    strings arguments, asked, notices;
    std::optional<int> exit;
    std::string error;
    int stall_ms = 5000;
    const servers::Release* release = &rel();
    std::string key_pem;
};

sandbox::RunResult check(const Fetch& c)
{
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(c.exit.has_value()) << "a row must name its exit status";
    servers::World w(*c.release);
    strings args = c.arguments;
    if (!c.key_pem.empty()) {
        w.dev.write_file(w.dev.workdir() + "/release.pub", c.key_pem);
        args.push_back("-keys=" + w.dev.workdir() + "/release.pub");
    }
    if (c.preinstalled) w.install(w.file, 0, "", args);
    servers::Scripted server(c.served, c.stall_ms);
    auto r = w.install(server.url("img.velk"), c.exit.value_or(-1), c.error, args);
    EXPECT_EQ(server.ranges(), c.asked);
    for (const auto& text : c.notices) {
        bool found = false;
        for (const auto& l : r.log) found = found || (l.priority == LOG_NOTICE && l.text.find(text) != l.text.npos);
        EXPECT_TRUE(found) << "no notice holding: " << text << "\nsyslog: " << r.log_text();
    }
    return r;
}

// Where the link fails, what the server then answers, and the requests kor makes: each asks for the first byte
// that has not arrived, so no byte is asked for again once it has arrived.
std::vector<Fetch> drops()
{
    const size_t korm_header = body_start(0) - 40, mid_body = body_start(1) + kBody / 2, e0 = rel().ends[0];
    return {
        Fetch("before the answer").answers({{"", Drop::reset}, whole(0)}).ranges({from(0), from(0)}),
        Fetch("in the answer's header").answers({{partial(0, 0).substr(0, 30), Drop::reset}, whole(0)})
            .ranges({from(0), from(0)}),
        Fetch("in the image's file header").answers({dropped(0, 10), whole(10)}).ranges({from(0), from(10)}),
        Fetch("in a content part's header").answers({dropped(0, korm_header), whole(korm_header)})
            .ranges({from(0), from(korm_header)}),
        Fetch("in a body").answers({dropped(0, mid_body), whole(mid_body)}).ranges({from(0), from(mid_body)}),
        Fetch("right behind a skipped body").installed()
            .answers({whole(0), dropped(e0, e0), whole(e0), whole(rel().ends[1])})
            .ranges({from(0), from(e0), from(e0), from(rel().ends[1])}),
    };
}

TEST(ResumeTest, DroppedConnectionResumesWhereItStopped)
{
    KOR_SANDBOX_OR_SKIP();
    for (Fetch c : drops()) {
        const std::string& retried = c.asked[c.preinstalled ? 2 : 1];  // "bytes=N-"
        check(c.args({"-retries=2"}).status(0).notice("; retry 1 of 2 in 1 s from byte " +
                                                      retried.substr(6, retried.size() - 7) + "\n"));
    }
}

TEST(ResumeTest, DroppedConnectionWithoutRetriesWritesNothing)
{
    KOR_SANDBOX_OR_SKIP();
    for (Fetch c : drops()) {
        const size_t tried = c.preinstalled ? 2 : 1;  // the request that failed ends the install
        c.asked.resize(tried);
        c.status(16).stderr_has("curl returned: ");
        check(c);
    }
}

// What the server answers to a resumed request, and what a retry may not hide.
TEST(ResumeTest, AnswersToAResume)
{
    KOR_SANDBOX_OR_SKIP();
    const size_t mid = body_start(1) + kBody / 2;
    std::string corrupt = rel().image;
    corrupt[body_start(1) + 7] ^= 0x20;
    const std::vector<Fetch> runs = {
        Fetch("200: the whole image again").answers({dropped(0, mid), {response("200 OK", rel().image)}})
            .args({"-retries=3"}).status(0).ranges({from(0), from(mid)})
            .notice("install: server sent the whole image instead of the rest from byte " + std::to_string(mid) +
                    "; starting again from byte 0 without ranges\n"),
        Fetch("503, then the rest").answers({dropped(0, mid), status("503 Service Unavailable"), whole(mid)})
            .args({"-retries=3"}).status(0).ranges({from(0), from(mid), from(mid)})
            .notice("retry 2 of 3 in 2 s from byte " + std::to_string(mid)),
        Fetch("416").answers({dropped(0, mid), status("416 Range Not Satisfiable")}).args({"-retries=3"}).status(16)
            .stderr_has("curl returned: 22 == The requested URL returned error: 416").ranges({from(0), from(mid)}),
        Fetch("404").answers({dropped(0, mid), status("404 Not Found")}).args({"-retries=3"}).status(16)
            .stderr_has("curl returned: 22 == The requested URL returned error: 404").ranges({from(0), from(mid)}),
        Fetch("206 from another byte").answers({dropped(0, mid), whole(mid + 4)}).args({"-retries=3"}).status(16)
            .stderr_has("install: server resumed at byte " + std::to_string(mid + 4) + " instead of " +
                        std::to_string(mid) + "\n").ranges({from(0), from(mid)}),
        Fetch("a body that fails its CRC").answers({{response("200 OK", corrupt)}}).args({"-retries=3"}).status(16)
            .stderr_has("install: content part 3 not valid error\n").ranges({from(0)}),
        Fetch("retries used up").answers({dropped(0, 100), dropped(100, 200), dropped(200, 300)})
            .args({"-retries=2"}).status(16).stderr_has("curl returned: 18 == ")
            .ranges({from(0), from(100), from(200)}),
        Fetch("-rewrite: no range until the resume").answers({{response("200 OK", rel().image, image_size(), mid), Drop::close},
            whole(mid)}).args({"-retries=1", "-rewrite"}).status(0).ranges({"", from(mid)}),
    };
    for (const Fetch& c : runs) check(c);
}
// A signed release resumed after a drop is checked as it would be undisturbed: the signature part and every body are
// hashed across the requests, and a server that starts over with the whole image has it checked from its start.
TEST(ResumeTest, SignedImageResumes)
{
    KOR_SANDBOX_OR_SKIP();
    static const signing::Release signed_rel({&signing::old_key()}, "1.0.1", 1, {120001, 120002, 120003});
    static const servers::Release served = [] {
        servers::Release r({64});
        r.image = signing::text(signed_rel.image());
        r.bodies = {signed_rel.body(3), signed_rel.body(4), signed_rel.body(5)};
        return r;
    }();
    const std::string& img = served.image;
    const std::string tampered = [] {  // the kernel's body changed, every CRC right
        signing::parts p = signed_rel.signed_parts;
        p[3].body[10] ^= 1;
        return signing::text(mkvelk::build_image(p));
    }();
    const auto inside = [&](int part, size_t offset) {  // image offset of a byte of a part's body
        const auto& b = signed_rel.body(part);
        return img.find(std::string(b.begin(), b.begin() + 64)) + offset;
    };
    const size_t in_signature = inside(1, 20), in_root = inside(4, 60000);
    const std::string verified = "install: signed by key " + signing::old_key().id_hex;
    const std::vector<Fetch> runs = {
        Fetch("dropped in the signature part").of(served).trusting(signing::old_key().pem)
            .answers({dropped(0, in_signature, img), whole(in_signature, img)}).args({"-retries=1"}).status(0)
            .stderr_has(verified).ranges({from(0), from(in_signature)}),
        Fetch("dropped in a body").of(served).trusting(signing::old_key().pem)
            .answers({dropped(0, in_root, img), whole(in_root, img)}).args({"-retries=1"}).status(0)
            .stderr_has(verified).ranges({from(0), from(in_root)}),
        Fetch("the whole image again").of(served).trusting(signing::old_key().pem)
            .answers({dropped(0, in_root, img), {response("200 OK", img)}}).args({"-retries=1"}).status(0)
            .stderr_has(verified).ranges({from(0), from(in_root)}),
        Fetch("the whole image again, with a changed kernel").of(served).trusting(signing::old_key().pem)
            .answers({dropped(0, in_root, img), {response("200 OK", tampered)}}).args({"-retries=1"}).status(15)
            .stderr_has("install: content part 3 does not match the signed manifest\n")
            .ranges({from(0), from(in_root)}),
        Fetch("a key that did not sign it: refused before the drop").of(served).trusting(signing::new_key().pem)
            .answers({dropped(0, in_root, img), {response("200 OK", img)}}).args({"-retries=1"}).status(15)
            .stderr_has("install: no trusted key signed this image").ranges({from(0)}),
    };
    for (const Fetch& c : runs) check(c);
}

// -timeout= bounds the whole download, waits between retries included: a server that stalls, or fails each time,
// is given up well before it would end the connection itself.
TEST(ResumeTest, DeadlineEndsTheDownload)
{
    KOR_SANDBOX_OR_SKIP();
    const std::string half = response("200 OK", rel().image, image_size(), image_size() / 2);
    const std::vector<Fetch> runs = {
        Fetch("stalled in a body").answers({{half}}).stall(20000).args({"-timeout=1"}).status(16)
            .stderr_has("install: the download did not end within -timeout=1 seconds\n").ranges({from(0)}),
        Fetch("failing until the deadline").answers({dropped(0, 100), status("503 Service Unavailable")})
            .stall(20000).args({"-timeout=2", "-retries=10"}).status(16)
            .stderr_has("install: the download did not end within -timeout=2 seconds\n")
            .ranges({from(0), from(100)}),
    };
    for (const Fetch& c : runs) {
        const auto start = std::chrono::steady_clock::now();
        check(c);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << c.name;
    }
}

// Values that do not fit are refused before anything else happens.
TEST(ResumeTest, OptionValues)
{
    KOR_SANDBOX_OR_SKIP();
    const struct { std::string arg; int status; std::string error; } rows[] = {
        {"-retries=1000", 0, ""}, {"-timeout=604800", 0, ""}, {"-timeout=0", 0, ""},
        {"-retries=1001", 1, "-retries syntax failure.\n"}, {"-retries=-1", 1, "-retries syntax failure.\n"},
        {"-retries=0x3", 1, "-retries syntax failure.\n"}, {"-retries=", 1, "-retries syntax failure.\n"},
        {"-timeout=604801", 1, "-timeout syntax failure.\n"}, {"-timeout=5s", 1, "-timeout syntax failure.\n"},
        {"-cacert=/" + std::string(98, 'c'), 0, ""},
        {"-cacert=/" + std::string(99, 'c'), 1, "-cacert value too long (at most 99 characters).\n"},
        {"-cert=/" + std::string(99, 'c'), 1, "-cert value too long (at most 99 characters).\n"},
        {"-key=/" + std::string(99, 'c'), 1, "-key value too long (at most 99 characters).\n"},
        {"-key=", 1, "-key syntax failure.\n"},
    };
    sandbox::Device dev;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arg);
        auto r = dev.kor({"help", row.arg});
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.err, row.error);
    }
}

}  // namespace
