#include "support/cli_case.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "hostconfig/hostconfig.h"
#include "support/hostconfig_decoder.h"

namespace cli {
namespace {

const std::string kP3 = sandbox::Device::part(3), kP4 = sandbox::Device::part(4);
constexpr uint64_t kImageBytes = 8192, kPartitionStart = 4096, kFlagsOffset = 0x3FE00, kFlagsBytes = 512;

std::string key(const std::string& path, uint64_t offset) { return path + "@" + std::to_string(offset); }

std::string in_quotes(const std::string& text) { return "\"" + text + "\""; }

Expectation text_is(const char* stream, std::string sandbox::RunResult::*which, const std::string& want)
{
    return {std::string(stream) + " is " + in_quotes(want), [=](const Outcome& o) {
                const std::string& got = o.run.*which;
                return got == want ? "" : std::string(stream) + " was " + in_quotes(got);
            }};
}

Expectation text_has(const char* stream, std::string sandbox::RunResult::*which, const std::string& want, bool has)
{
    return {std::string(stream) + (has ? " holds " : " lacks ") + in_quotes(want), [=](const Outcome& o) {
                const std::string& got = o.run.*which;
                const bool found = got.find(want) != std::string::npos;
                return found == has ? "" : std::string(stream) + " was " + in_quotes(got);
            }};
}

std::string log_text(const std::vector<sandbox::LogLine>& lines)
{
    std::string s;
    for (const sandbox::LogLine& l : lines) s += "<" + std::to_string(l.priority) + "> " + in_quotes(l.text) + "\n";
    return s.empty() ? "nothing\n" : s;
}

// p3's "KOR data" as fields by name; false when p3 holds no hostconfig with one.
bool stored_fields(const sandbox::Device& dev, std::map<std::string, std::string>* out)
{
    bytes body;
    if (!hcdec::stored_kor_data(dev.read(kP3, 0, HOSTCONFIG_MAX), &body)) return false;
    for (const hcdec::Field& f : hcdec::kor_data_fields(body)) (*out)[f.name] = f.value;
    return !out->empty();
}

// The "KOR data" fields of kor's default layout.
std::map<std::string, std::string> default_fields()
{
    static hostconfig hc;
    std::map<std::string, std::string> fields;
    if (hostconfig_new(&hc, HOSTCONFIG_MAX) != 1 || hostconfig_default(&hc) != 1) return fields;
    const uint8_t* body = hostconfig_get_body(&hc, "KOR data");
    if (!body) return fields;
    for (const hcdec::Field& f : hcdec::kor_data_fields(bytes(body, body + 3240))) fields[f.name] = f.value;
    return fields;
}

Expectation unknown_field(const std::string& field)
{
    return {"stored field " + field, [=](const Outcome&) { return "no \"KOR data\" field is named " + field; }};
}

Expectation unchanged(const std::string& what, const std::vector<std::string>& keys)
{
    return {what + " unchanged", [=](const Outcome& o) {
                const Snapshot after = snapshot(o.dev);
                std::string changed;
                for (const auto& [k, b] : o.before) {
                    const bool compared = keys.empty() || std::count(keys.begin(), keys.end(), k);
                    if (compared && (!after.count(k) || after.at(k) != b)) changed += " " + k;
                }
                return changed.empty() ? "" : "written:" + changed;
            }};
}

Expectation partition_start(int pn, const bytes& content, bool holds)
{
    const std::string path = sandbox::Device::part(pn);
    return {path + (holds ? " holds" : " lacks") + " the " + std::to_string(content.size()) + " bytes",
            [=](const Outcome& o) {
                return (o.dev.read(path, 0, content.size()) == content) == holds ? "" : "it does not";
            }};
}

const char* hook_variable(Hook h)
{
    switch (h) {
    case Hook::hcfg_fail: return "KOR_TEST_HOOK_HCFG_FAIL";
    case Hook::data_rcvd: return "KOR_TEST_HOOK_DATA_RCVD";
    case Hook::post_dl: return "KOR_TEST_HOOK_POST_DL";
    case Hook::pre_metainstall: return "KOR_TEST_HOOK_PRE_METAINSTALL";
    case Hook::pre_install: return "KOR_TEST_HOOK_PRE_INSTALL";
    case Hook::post_write_out: return "KOR_TEST_HOOK_POST_WRITE_OUT";
    case Hook::post_activate: return "KOR_TEST_HOOK_POST_ACTIVATE";
    case Hook::on_failure: return "KOR_TEST_HOOK_ON_FAILURE";
    case Hook::activate_post: return "KOR_TEST_HOOK_ACTIVATE_POST";
    }
    return "";
}

std::string hook_log_path(const sandbox::Device& dev) { return dev.workdir() + "/hooks.log"; }

}  // namespace

Words split(const std::string& words)
{
    std::istringstream in(words);
    Words out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

namespace expectation {

Expectation stdout_is(const std::string& t) { return text_is("stdout", &sandbox::RunResult::out, t); }
Expectation stdout_has(const std::string& t) { return text_has("stdout", &sandbox::RunResult::out, t, true); }
Expectation stdout_lacks(const std::string& t) { return text_has("stdout", &sandbox::RunResult::out, t, false); }
Expectation stdout_matches(const std::string& regex)
{
    return {"stdout matches " + in_quotes(regex), [=](const Outcome& o) {
                return std::regex_match(o.run.out, std::regex(regex)) ? "" : "stdout was " + in_quotes(o.run.out);
            }};
}

Expectation stderr_is(const std::string& t) { return text_is("stderr", &sandbox::RunResult::err, t); }
Expectation stderr_has(const std::string& t) { return text_has("stderr", &sandbox::RunResult::err, t, true); }
Expectation stderr_lacks(const std::string& t) { return text_has("stderr", &sandbox::RunResult::err, t, false); }

Expectation syslog_is(const std::vector<sandbox::LogLine>& lines)
{
    return {"syslog is\n" + log_text(lines), [=](const Outcome& o) {
                bool same = o.run.log.size() == lines.size();
                for (size_t i = 0; same && i < lines.size(); i++)
                    same = o.run.log[i].priority == lines[i].priority && o.run.log[i].text == lines[i].text;
                return same ? "" : "syslog was\n" + log_text(o.run.log);
            }};
}

Expectation syslog_has(int priority, const std::string& text)
{
    return {"syslog holds <" + std::to_string(priority) + "> " + in_quotes(text), [=](const Outcome& o) {
                for (const sandbox::LogLine& l : o.run.log)
                    if (l.priority == priority && l.text == text) return std::string();
                return "syslog was\n" + log_text(o.run.log);
            }};
}

Expectation stored(const std::string& field, const std::string& value)
{
    if (!hcdec::is_kor_data_field(field)) return unknown_field(field);
    return {"stored " + field + " = " + in_quotes(value), [=](const Outcome& o) {
                std::map<std::string, std::string> fields;
                if (!stored_fields(o.dev, &fields)) return std::string("p3 holds no \"KOR data\"");
                return fields[field] == value ? "" : "it holds " + in_quotes(fields[field]);
            }};
}

Expectation stored_default_except(const Fields& changed)
{
    for (const auto& [field, value] : changed)
        if (!hcdec::is_kor_data_field(field)) return unknown_field(field);
    return {"stored fields as in the default layout but the changed ones", [=](const Outcome& o) {
                std::map<std::string, std::string> got, want = default_fields();
                if (!stored_fields(o.dev, &got)) return std::string("p3 holds no \"KOR data\"");
                for (const auto& [field, value] : changed) want[field] = value;
                std::string differs;
                for (const auto& [field, value] : want)
                    if (got[field] != value)
                        differs += field + " = " + in_quotes(got[field]) + ", not " + in_quotes(value) + "\n";
                return differs;
            }};
}

Expectation stored_nonzero_among(const Words& records, const Fields& nonzero)
{
    const auto in_records = [records](const std::string& field) {
        for (const std::string& r : records)
            if (field.rfind(r + ".", 0) == 0) return true;
        return false;
    };
    for (const std::string& r : records) {
        bool known = false;
        for (const hcdec::Field& f : hcdec::kor_data_fields(bytes(3240, 0)))
            known = known || f.name.rfind(r + ".", 0) == 0;
        if (!known) return unknown_field(r);
    }
    for (const auto& [field, value] : nonzero)
        if (!hcdec::is_kor_data_field(field) || !in_records(field)) return unknown_field(field);
    return {"stored fields of the records not zero but these", [=](const Outcome& o) {
                bytes body;
                if (!hcdec::stored_kor_data(o.dev.read(kP3, 0, HOSTCONFIG_MAX), &body))
                    return std::string("p3 holds no \"KOR data\"");
                std::map<std::string, std::string> want(nonzero.begin(), nonzero.end()), got;
                for (const hcdec::Field& f : hcdec::kor_data_fields(body))
                    if (in_records(f.name) && !f.zero) got[f.name] = f.value;
                std::string found;
                for (const auto& [field, value] : got) found += field + " = " + in_quotes(value) + "\n";
                return got == want ? "" : "they are\n" + found;
            }};
}

Expectation hostconfig_unchanged() { return unchanged("hostconfig copies", {key(kP3, 0), key(kP4, 0)}); }

Expectation device_unchanged() { return unchanged("device", {}); }

Expectation flags_area(const bytes& first)
{
    std::string want;
    for (uint8_t b : first) want += " " + std::to_string(b);
    return {"flags area starts with" + want, [=](const Outcome& o) {
                std::string got;
                for (uint8_t b : o.dev.read(kP3, kFlagsOffset, first.size())) got += " " + std::to_string(b);
                return got == want ? "" : "it starts with" + got;
            }};
}

Expectation partition_holds(int pn, const bytes& content) { return partition_start(pn, content, true); }
Expectation partition_lacks(int pn, const bytes& content) { return partition_start(pn, content, false); }

Expectation file_is(const std::string& path, const std::string& content)
{
    return {path + " holds " + in_quotes(content), [=](const Outcome& o) {
                if (!o.dev.exists(path)) return std::string("there is no such file");
                const std::string got = o.dev.read_file(path);
                return got == content ? "" : "it holds " + in_quotes(got);
            }};
}

Expectation file_absent(const std::string& path)
{
    return {"no file " + path, [=](const Outcome& o) {
                return o.dev.exists(path) ? "it holds " + in_quotes(o.dev.read_file(path)) : "";
            }};
}

Expectation hooks_called(const Words& calls)
{
    std::string want;
    for (const std::string& c : calls) want += c + "\n";
    return {"hook calls\n" + want, [=](const Outcome& o) {
                const std::string path = hook_log_path(o.dev);
                std::istringstream in(o.dev.exists(path) ? o.dev.read_file(path) : "");
                std::string got, previous;
                for (std::string line; std::getline(in, line);) {
                    const std::string prefix = "kor_install_hook_";
                    if (line.rfind(prefix, 0) == 0) line.erase(0, prefix.size());
                    if (line.rfind("data_rcvd", 0) == 0) line = "data_rcvd";
                    if (line == "data_rcvd" && previous == line) continue;
                    got += line + "\n";
                    previous = line;
                }
                return got == want ? "" : "the calls were\n" + got;
            }};
}

}  // namespace expectation

Step hook_plugin_step(std::optional<std::pair<Hook, int>> returns)
{
    std::string what = "test plugin";
    if (returns) what += std::string(", ") + hook_variable(returns->first) + "=" + std::to_string(returns->second);
    return {what, [=](Setup& s) {
                s.options.set("KOR_TEST_HOOK_LOG", hook_log_path(s.dev));
                if (returns) s.options.set(hook_variable(returns->first), std::to_string(returns->second));
                s.args.push_back("-plugin=" + s.dev.stage(KOR_PLUGIN_test_plugin));
            }};
}

Step lock_held_step()
{
    return {"lock file held", [](Setup& s) {
                const int fd = open("/tmp/kor.lock", O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
                ASSERT_GE(fd, 0);
                ASSERT_EQ(flock(fd, LOCK_EX), 0);
                s.after_run.push_back([fd] { close(fd); });
            }};
}

Snapshot snapshot(const sandbox::Device& dev)
{
    Snapshot s;
    for (const std::string& hc : {kP3, kP4})
        if (dev.exists(hc)) s[key(hc, 0)] = dev.read(hc, 0, kImageBytes);
    if (dev.exists(kP3)) s[key(kP3, kFlagsOffset)] = dev.read(kP3, kFlagsOffset, kFlagsBytes);
    for (int pn = 5; pn <= 22; pn++)
        if (dev.exists(sandbox::Device::part(pn)))
            s[key(sandbox::Device::part(pn), 0)] = dev.read(sandbox::Device::part(pn), 0, kPartitionStart);
    return s;
}

sandbox::RunResult run(const CaseData& c, sandbox::Device& dev, const Words& prefix)
{
    SCOPED_TRACE("case \"" + c.name + "\"");
    if (!c.status) ADD_FAILURE() << "the case names no exit status";
    Words args = prefix;
    args.insert(args.end(), c.args.begin(), c.args.end());
    sandbox::RunOptions options = c.options;
    std::vector<std::function<void()>> after_run;
    Setup setup{dev, args, options, after_run};
    for (const Step& step : c.steps) {
        SCOPED_TRACE("set-up: " + step.what);
        step.run(setup);
    }
    const Snapshot before = snapshot(dev);
    const sandbox::RunResult r = dev.kor(args, options);
    for (const auto& undo : after_run) undo();
    if (c.status) {
        EXPECT_EQ(r.status, *c.status) << "exit status; stderr: " << r.err;
    }
    const Outcome outcome{dev, r, before};
    for (const Expectation& e : c.expectations)
        if (const std::string differs = e.differs(outcome); !differs.empty())
            ADD_FAILURE() << "expected " << e.what << "\n" << differs;
    return r;
}

}  // namespace cli
