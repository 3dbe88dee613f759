// The key store's Secret Service path against a real service: a private session bus and
// gnome-keyring's secrets component over a keyring without a password (gnome-keyring keeps such
// a keyring in its plain-text format and unlocks it without a prompt), so that nothing needs a
// desktop. Skipped, saying what is missing, where the daemons or libsecret are not installed.

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "core/plans/key_store.hpp"
#include "tests/support/temp_dir.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;

bool onPath(std::string_view tool) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        std::error_code ec;
        if (!dir.empty() && fs::exists(fs::path(dir) / tool, ec)) {
            return true;
        }
    }
    return false;
}

// What `command` prints on its standard output.
std::string output(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[512];
        while (std::fgets(buffer, sizeof buffer, pipe)) {
            out += buffer;
        }
        ::pclose(pipe);
    }
    return out;
}

std::string quoted(const fs::path& path) {
    return "'" + path.string() + "'";
}

// A session bus with gnome-keyring on it, both ended (by the ids they report) when it goes.
class PrivateSecretService {
  public:
    explicit PrivateSecretService(const fs::path& root) {
        // The default keyring, "login", without a password.
        const fs::path keyrings = root / "data" / "keyrings";
        fs::create_directories(keyrings);
        std::ofstream(keyrings / "login.keyring")
            << "[keyring]\ndisplay-name=Login\nctime=0\nmtime=0\nlock-on-idle=false\n"
               "lock-after=false\n";
        std::ofstream(keyrings / "default") << "login";

        std::istringstream bus(
            output("dbus-daemon --session --fork --print-address=1 --print-pid=1 2>/dev/null"));
        std::string pid;
        std::getline(bus, address);
        std::getline(bus, pid);
        if (address.empty() || pid.empty()) {
            return;
        }
        busPid = std::stoi(pid);
        const std::string env = "env HOME=" + quoted(root) + " XDG_DATA_HOME=" +
                                quoted(root / "data") + " XDG_RUNTIME_DIR=" + quoted(root) +
                                " DBUS_SESSION_BUS_ADDRESS='" + address + "' ";
        (void)output(env + "gnome-keyring-daemon --start --components=secrets 2>/dev/null");
        const std::string answer = output(
            env +
            "gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus "
            "--method org.freedesktop.DBus.GetConnectionUnixProcessID org.freedesktop.secrets "
            "2>/dev/null");
        // "(uint32 1234,)"
        const auto digits = answer.find_first_of("0123456789", answer.find("uint32"));
        if (answer.find("uint32") != std::string::npos && digits != std::string::npos) {
            keyringPid = std::stoi(answer.substr(digits));
        }
    }

    ~PrivateSecretService() {
        if (keyringPid > 0) {
            ::kill(keyringPid, SIGTERM);
        }
        if (busPid > 0) {
            ::kill(busPid, SIGTERM);
        }
    }

    bool running() const { return busPid > 0 && keyringPid > 0; }

    std::string address;
    int busPid = 0;
    int keyringPid = 0;
};

// Stores, replaces, reads, lists and removes keys through the store a run with this bus opens;
// what went wrong, one line each (empty when nothing did).
std::string exercise(const fs::path& support, const std::string& address) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    std::string failures;
    const auto check = [&](bool ok, std::string_view what) {
        if (!ok) {
            failures += std::string(what) + "\n";
        }
    };
    const auto env = [&](std::string_view name) -> std::optional<std::string> {
        return name == "DBUS_SESSION_BUS_ADDRESS" ? std::optional(address) : std::nullopt;
    };
    // A read's value; an error reads as a value no key has.
    const auto read = [](KeyStore& from, std::string_view name) -> std::optional<std::string> {
        auto value = from.get(name);
        return value ? *value : std::optional<std::string>("<error>");
    };
    auto store = openKeyStore(support, env);
    if (store->backend() != "secret-service") {
        return "opened the " + std::string(store->backend()) + " store\n";
    }
    const std::string first = "sk-SECRET-SERVICE-FIRST-0001";
    const std::string second = "GLM-SECRET-SERVICE-SECOND-0002";
    const std::string replaced = "sk-SECRET-SERVICE-REPLACED-0003";
    check(store->set("deepseek", first).has_value(), "set deepseek");
    check(store->set("glm-cn", second).has_value(), "set glm-cn");
    check(store->set("deepseek", replaced).has_value(), "replace deepseek");
    check(read(*store, "deepseek") == replaced, "get the replaced deepseek");
    check(read(*store, "glm-cn") == second, "get glm-cn");
    check(read(*store, "openrouter") == std::nullopt, "get a missing key");
    check(store->names() == std::vector<std::string>{"deepseek", "glm-cn"}, "names");
    check(!store->set("Not A Name", first).has_value(), "refuse a bad name");
    // A new store over the same service, as the next run opens, sees the same keys.
    auto again = makeSecretServiceKeyStore();
    check(again && read(*again, "glm-cn") == second, "a second store reads glm-cn");
    check(store->remove("deepseek") == true, "remove deepseek");
    check(store->remove("deepseek") == false, "remove deepseek twice");
    check(store->names() == std::vector<std::string>{"glm-cn"}, "names after the removal");
    return failures;
}

TEST(SecretServiceKeyStore, KeysRoundTripThroughARealServiceAndStayOutOfTheSupportFolder) {
    if (!secretServiceBuilt()) {
        GTEST_SKIP() << "built without libsecret (libsecret-1-dev)";
    }
    for (const char* tool : {"dbus-daemon", "gnome-keyring-daemon", "gdbus"}) {
        if (!onPath(tool)) {
            GTEST_SKIP() << tool << " is not installed (packages dbus-daemon, gnome-keyring, "
                                    "libglib2.0-bin)";
        }
    }
    TempDir root, support;
    PrivateSecretService service(root.path());
    ASSERT_TRUE(service.running()) << "the session bus or gnome-keyring did not start";

    // The service is used from a child process: GLib's per-process state (its bus connection,
    // its types) then never outlives the test in this process, nor meets a leak checker.
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(channel[0]);
        const std::string failures = exercise(support.path(), service.address);
        (void)!::write(channel[1], failures.data(), failures.size());
        ::_exit(0);
    }
    ::close(channel[1]);
    std::string failures;
    char buffer[512];
    for (ssize_t n; (n = ::read(channel[0], buffer, sizeof buffer)) > 0;) {
        failures.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(channel[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed";
    EXPECT_EQ(failures, "");

    // The keys live in the service: the support folder got no key file.
    EXPECT_FALSE(fs::exists(support / "keys.enc"));
    EXPECT_FALSE(fs::exists(support / "keys.key"));
}

}  // namespace
}  // namespace kestrel
