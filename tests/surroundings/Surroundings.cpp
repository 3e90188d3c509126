#include "Surroundings.h"

#include "PidFile.h"

namespace zortest {
namespace {

/// What scripts with mounts of their own can use. A file system is made ready at a place that
/// nothing needs, and then moved. What was built may lie in /tmp itself. Who is root in the script
/// only may not enter mounts in the system's list of them (-n).
constexpr const char* FUNCTIONS = R"(
    mount() { command mount -n "$@"; }
    keep() {
        case $1 in
        /tmp/*) mkdir -p "/mnt/${1#/tmp/}" && mount --bind "$1" "/mnt/${1#/tmp/}" ;;
        esac
    }
    private_tmp() {
        mount -t tmpfs -o "$1" zor-test /mnt && keep ')" SOURCE_DIR R"(' &&
            keep ')" BINARY_DIR R"(' && mount --move /mnt /tmp || exit 125
    }
    private_dev() {
        mount -t tmpfs -o mode=755 zor-test /mnt && : >/mnt/null &&
            mount --bind /dev/null /mnt/null || exit 125
        for file; do : >"/mnt/$file" || exit 125; done
        mount --move /mnt /dev || exit 125
    }
    read_only() { mount -o remount,bind,ro "$1" || exit 125; }
)";

Command Unshare(const Command& options, const std::string& script, const Command& command)
{
    Command line = {"unshare"};
    line.insert(line.end(), options.begin(), options.end());
    line.insert(line.end(), {"--mount", "/bin/sh", "-c", script, "sh"});
    line.insert(line.end(), command.begin(), command.end());
    return line;
}

/// How this machine lets a test have mounts of its own.
struct TSOwnMounts
{
    TSOwnMounts()
    {
        const std::string attempt =
            std::string(FUNCTIONS) + "private_tmp size=1m; private_dev; read_only /tmp";
        const std::pair<const char*, Command> ways[] = {
            {"as this user", {}}, {"as root of a user namespace", {"--user", "--map-root-user"}}};
        for (const auto& [way, each] : ways) {
            options = each;
            const ProgramResult result = RunProgram("/usr/bin/env", Unshare(each, attempt, {}));
            if (result.exitCode == 0) {
                complaint.clear();
                return;
            }
            complaint +=
                std::string("\n") + way + ": " + result.err.substr(0, result.err.find('\n'));
        }
    }

    Command options;
    std::string complaint;
};

const TSOwnMounts& OwnMounts()
{
    static const TSOwnMounts mounts;
    return mounts;
}

} // namespace

DaemonResult RunDaemonIn(const std::string& script, const Command& command,
                         const ProgramRun::Environment& environment)
{
    const PidFileGuard guard;
    Command words = {"-c", script, "sh"};
    words.insert(words.end(), command.begin(), command.end());
    ProgramRun run("/bin/sh", words, environment);
    DaemonResult result;
    result.pid = run.Pid();
    static_cast<ProgramResult&>(result) = run.Wait();
    result.pidFile = PidFileText();
    return result;
}

Command WithOwnMounts(const std::string& script, const Command& command)
{
    return Unshare(OwnMounts().options, FUNCTIONS + script, command);
}

const std::string& WhyNoOwnMounts()
{
    return OwnMounts().complaint;
}

testing::Matcher<const std::string&> IsTableOfSample()
{
    return testing::AllOf(
        testing::StartsWith("Transport stream 2049: 3 services in 6610 packets\n9.92 s "),
        testing::EndsWith("MPEG-2 video (0x02)            0x0104      901   136.3       0\n"));
}

} // namespace zortest
