// Command-line test cases as plain data. A case names its arguments, its set-up and each thing it expects, one
// builder call each, and `cli::run` runs the production kor in the sandbox and checks them all:
//
//   Case("product mismatch").args("1 -product=other").status(6)
//       .stderr_has("install: Release header does not contain model 'other'\n").hostconfig_unchanged(),
//
// What a case does not name is not checked. Every case must name its exit status. A file with a set-up or an
// expectation of its own either passes it to `given` or `expect`, or derives its own builder from cli::Builder
// (see the install test) so that its rows stay one chain of named calls.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace cli {

using sandbox::bytes;
using Words = std::vector<std::string>;
using Fields = std::vector<std::pair<std::string, std::string>>;  // "KOR data" field name, value

Words split(const std::string& words);  // at spaces

// What a set-up step may change before kor starts.
struct Setup {
    sandbox::Device& dev;
    Words& args;  // the whole command line after "kor"
    sandbox::RunOptions& options;
    std::vector<std::function<void()>>& after_run;  // undoes what must last only as long as the run
};

struct Step {
    std::string what;
    std::function<void(Setup&)> run;
};

// The device areas read before the run, by "path@offset": hostconfig copies, flags area, the partitions' starts.
using Snapshot = std::map<std::string, bytes>;

// What the expectations look at once kor has ended.
struct Outcome {
    const sandbox::Device& dev;
    const sandbox::RunResult& run;
    const Snapshot& before;
};

// "" when the outcome is as expected, else what was found instead.
using Differs = std::function<std::string(const Outcome&)>;

struct Expectation {
    std::string what;
    Differs differs;
};

// The hooks of the test plugin, which logs each call and returns what its KOR_TEST_HOOK_<NAME> variable says.
enum class Hook { hcfg_fail, data_rcvd, post_dl, pre_metainstall, pre_install, post_write_out, post_activate,
                  on_failure, activate_post };

namespace expectation {
Expectation stdout_is(const std::string& text);
Expectation stdout_has(const std::string& text);
Expectation stdout_lacks(const std::string& text);
Expectation stdout_matches(const std::string& regex);  // the whole of it (ECMAScript syntax)
Expectation stderr_is(const std::string& text);
Expectation stderr_has(const std::string& text);
Expectation stderr_lacks(const std::string& text);
Expectation syslog_is(const std::vector<sandbox::LogLine>& lines);  // every datagram, in order
Expectation syslog_has(int priority, const std::string& text);      // one datagram exactly so
Expectation stored(const std::string& field, const std::string& value);  // in p3's "KOR data"
Expectation stored_default_except(const Fields& changed);  // every other field as in the default layout
// Of the fields of `records` ("partinfo[5]", "pinfometa[5]", ...), exactly those in `nonzero` are not zero, and
// they hold the values given.
Expectation stored_nonzero_among(const Words& records, const Fields& nonzero);
Expectation hostconfig_unchanged();                        // both copies byte for byte
Expectation device_unchanged();                            // everything in the snapshot
Expectation flags_area(const bytes& first);                // the first bytes at 0x3FE00 of p3
Expectation partition_holds(int pn, const bytes& content);  // from its first byte
Expectation partition_lacks(int pn, const bytes& content);
Expectation file_is(const std::string& path, const std::string& content);
Expectation file_absent(const std::string& path);
// The test plugin's calls in order, each "<function> <arguments>" without the "kor_install_hook_" prefix; a run of
// data_rcvd calls counts once and without its byte count.
Expectation hooks_called(const Words& calls);
}  // namespace expectation

// The data of a case; the builder below fills it.
struct CaseData {
    std::string name;
    Words args;
    std::vector<Step> steps;
    sandbox::RunOptions options;
    std::optional<int> status;
    std::vector<Expectation> expectations;
};

Step hook_plugin_step(std::optional<std::pair<Hook, int>> returns);
Step lock_held_step();

template <typename Self>
class Builder : public CaseData {
public:
    explicit Builder(std::string case_name) { name = std::move(case_name); }

    // The run
    Self& args(const std::string& words) { return append(split(words)); }  // split at spaces
    Self& arg(const std::string& word) { return append({word}); }          // as it is, spaces and all
    Self& env(const std::string& variable, const std::string& value) { options.set(variable, value); return self(); }
    Self& stdout_on_tty() { options.tty(); return self(); }
    Self& given(std::string what, std::function<void(Setup&)> step)
    {
        steps.push_back({std::move(what), std::move(step)});
        return self();
    }
    Self& file(const std::string& path, const std::string& content)
    {
        return given("file " + path, [=](Setup& s) { s.dev.write_file(path, content); });
    }
    Self& cmdline(const std::string& text)
    {
        return given("kernel command line", [=](Setup& s) { s.dev.set_cmdline(text); });
    }
    Self& lock_held() { steps.push_back(lock_held_step()); return self(); }  // by another process, for the run
    // The test plugin loaded, logging every hook call (see hooks_called); each hook returns 0 but the one named.
    Self& with_test_plugin() { steps.push_back(hook_plugin_step(std::nullopt)); return self(); }
    Self& hook_returns(Hook hook, int result)
    {
        steps.push_back(hook_plugin_step(std::pair(hook, result)));
        return self();
    }

    // What kor must do
    Self& status(int s) { CaseData::status = s; return self(); }
    Self& stdout_is(const std::string& t) { return expect(expectation::stdout_is(t)); }
    Self& stdout_has(const std::string& t) { return expect(expectation::stdout_has(t)); }
    Self& stdout_lacks(const std::string& t) { return expect(expectation::stdout_lacks(t)); }
    Self& stdout_matches(const std::string& regex) { return expect(expectation::stdout_matches(regex)); }
    Self& stderr_is(const std::string& t) { return expect(expectation::stderr_is(t)); }
    Self& stderr_has(const std::string& t) { return expect(expectation::stderr_has(t)); }
    Self& stderr_lacks(const std::string& t) { return expect(expectation::stderr_lacks(t)); }
    Self& syslog_is(const std::vector<sandbox::LogLine>& l) { return expect(expectation::syslog_is(l)); }
    Self& syslog_has(int priority, const std::string& t) { return expect(expectation::syslog_has(priority, t)); }
    Self& stored(const std::string& field, const std::string& v) { return expect(expectation::stored(field, v)); }
    Self& stored_default_except(const Fields& f) { return expect(expectation::stored_default_except(f)); }
    Self& stored_nonzero_among(const Words& records, const Fields& nonzero)
    {
        return expect(expectation::stored_nonzero_among(records, nonzero));
    }
    Self& hostconfig_unchanged() { return expect(expectation::hostconfig_unchanged()); }
    Self& device_unchanged() { return expect(expectation::device_unchanged()); }
    Self& flags_area(const bytes& first) { return expect(expectation::flags_area(first)); }
    Self& partition_holds(int pn, const bytes& b) { return expect(expectation::partition_holds(pn, b)); }
    Self& partition_lacks(int pn, const bytes& b) { return expect(expectation::partition_lacks(pn, b)); }
    Self& file_is(const std::string& path, const std::string& c) { return expect(expectation::file_is(path, c)); }
    Self& file_absent(const std::string& path) { return expect(expectation::file_absent(path)); }
    Self& hooks_called(const Words& calls) { return expect(expectation::hooks_called(calls)); }
    // An expectation of the test's own.
    Self& expect(std::string what, Differs differs) { return expect({std::move(what), std::move(differs)}); }
    Self& expect(Expectation e)
    {
        expectations.push_back(std::move(e));
        return self();
    }

private:
    Self& self() { return static_cast<Self&>(*this); }
    Self& append(const Words& words)
    {
        CaseData::args.insert(CaseData::args.end(), words.begin(), words.end());
        return self();
    }
};

class Case : public Builder<Case> {
public:
    using Builder::Builder;
};

// Runs kor with `prefix` and then the case's arguments on `dev` after the case's set-up, and checks the exit status
// and every expectation; a failure names the case and the expectation.
sandbox::RunResult run(const CaseData& c, sandbox::Device& dev, const Words& prefix = {});

// The areas `device_unchanged` compares.
Snapshot snapshot(const sandbox::Device& dev);

}  // namespace cli
