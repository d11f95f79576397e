// The progress line: drawn on standard error only when it is a terminal, erased before every message and at the end,
// so that what remains on the terminal is, byte for byte, what a pipe gets.
#include <memory>

#include "base/progress.h"
#include "support/servers.h"

namespace {

const std::string kErase = "\r\033[K";

const servers::Release& rel()
{
    static const servers::Release r({700001, 600002, 500003});
    return r;
}

std::string replace_all(std::string text, const std::string& what, const std::string& with)
{
    for (size_t at = 0; (at = text.find(what, at)) != text.npos; at += with.size()) text.replace(at, what.size(), with);
    return text;
}

// A terminal's stderr taken apart: the lines drawn (text between an erase and the next erase) and everything else.
struct Screen {
    std::vector<std::string> drawn;
    std::string messages;
    bool ends_erased = false;  // nothing drawn is left standing at the end
};

Screen read_screen(const std::string& raw)
{
    Screen s;
    const std::string text = replace_all(raw, "\r\n", "\n");  // the terminal's own line ends
    size_t at = text.find(kErase);
    s.messages = text.substr(0, at);
    while (at != text.npos) {
        const size_t next = text.find(kErase, at + kErase.size());
        const std::string piece = text.substr(at + kErase.size(), next - at - kErase.size());
        if (next == text.npos) s.ends_erased = piece.empty() || piece.find('\n') != piece.npos;
        if (piece.find('\n') == piece.npos) {  // a drawn line never ends one of its own
            if (!piece.empty()) s.drawn.push_back(piece);
        } else {
            s.messages += piece;
        }
        at = next;
    }
    return s;
}

TEST(ProgressTest, DrawnOnATerminalOnly)
{
    KOR_SANDBOX_OR_SKIP();
    // The source, whether the release is in set 1 already, what some drawn line shows, and -stream (both its readings
    // draw the line).
    const struct { const char* name; bool http, installed; std::string shows; bool stream = false; } cases[] = {
        {"file", false, false, "part sw"},
        {"http, paced", true, false, "part sw"},
        {"http, again: every body skipped", true, true, "skipped 3"},
        {"file, -stream", false, false, "part sw", true},
        {"http, paced, -stream", true, false, "part sw", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string piped, logged;
        for (bool tty : {false, true}) {
            servers::World w(rel());
            if (c.installed) w.install(w.file);
            // 2 MiB/s: the first install lasts about a second, long enough for several lines.
            auto nginx = c.http ? std::make_unique<servers::Daemon>(w, "http", "limit_rate 2m;\n") : nullptr;
            ASSERT_TRUE(!nginx || nginx->pid) << nginx->error;
            const std::string source = nginx ? nginx->url("img.velk") : w.file;
            std::vector<std::string> args{"install", source, "1"};
            if (c.stream) args.push_back("-stream");
            auto r = w.dev.kor(args, sandbox::RunOptions().err_tty(tty));
            ASSERT_EQ(r.status, 0) << r.err;
            std::string log = r.log_text();
            const size_t port = log.find(source);  // the only text that differs from run to run
            if (port != log.npos) log.replace(port, source.size(), "SOURCE");
            if (!tty) {
                EXPECT_EQ(r.err.find_first_of("\r\033"), std::string::npos) << r.err;
                piped = replace_all(r.err, source, "SOURCE"), logged = log;
                continue;
            }
            const Screen s = read_screen(r.err);
            EXPECT_EQ(replace_all(s.messages, source, "SOURCE"), piped);
            EXPECT_EQ(log, logged) << "syslog changed with the terminal";
            EXPECT_TRUE(s.ends_erased) << r.err;
            ASSERT_FALSE(s.drawn.empty());
            bool shown = false;
            for (const auto& line : s.drawn) {
                EXPECT_LE(line.size(), 79u) << line;
                EXPECT_NE(line.find("MiB/s"), line.npos) << line;
                shown = shown || line.find(c.shows) != line.npos;
            }
            EXPECT_TRUE(shown) << "no line shows " << c.shows << ": " << testing::PrintToString(s.drawn);
            EXPECT_TRUE(!c.http || c.installed || s.drawn.size() >= 3) << s.drawn.size() << " lines in a second";
        }
    }
}

// The line's text: bounded by the fields it is given, never wider than a terminal line.
TEST(ProgressTest, LineText)
{
    const char full_name[16] = {'r', 'o', 'o', 't', 'f', 's', '-', 'a', 'r', 'm', 'v', '7', '-', 'b', 'i', 'g'};  // no NUL
    const struct { const char* name; progress_state state; uint64_t elapsed_ms; std::string line; } rows[] = {
        {"size not known yet", {1000, 1000, 0, nullptr, 0, 0}, 10, " --%      0.0 MiB      -- MiB/s"},
        {"half, 1 MiB/s", {1 << 20, 3 << 20, 6 << 20, "kernel", 16, 0}, 1000,
         " 50%      1.0 MiB    1.00 MiB/s  part kernel"},
        {"a name that fills its field", {0, 1, 2, full_name, 16, 2}, 500,
         " 50%      0.0 MiB    0.00 MiB/s  part rootfs-armv7-big  skipped 2"},
        {"past the end", {5, 7, 6, "", 16, 0}, 500, "100%      0.0 MiB    0.00 MiB/s"},
        {"everything at its largest", {~0ull, ~0ull, ~0ull, full_name, 16, 2147483647}, 1,
         "100% 17592186044416.0 MiB      -- MiB/s  part rootfs-armv7-big  skipped 2147483"},  // cut at 79
    };
    for (const auto& row : rows) {
        char line[80];
        const uint32_t n = progress_format(line, sizeof line, row.state, row.elapsed_ms);
        EXPECT_EQ(std::string(line, n), row.line) << row.name;
    }
}

}  // namespace
