#include "core/sources/file_discovery.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_dir.hpp"
#include "tests/support/unprivileged.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using test_support::TempDir;
using Paths = std::vector<fs::path>;

class FileDiscoveryTest : public ::testing::Test {
  protected:
    fs::path root() const { return dir_ / "root"; }

    fs::path file(const fs::path& relative) {
        return dir_.write(fs::path("root") / relative, "{}\n");
    }

    // `relative` (below root) becomes a symbolic link to `target`, as written.
    fs::path link(const fs::path& relative, const fs::path& target) {
        const auto at = root() / relative;
        fs::create_directories(at.parent_path());
        fs::create_symlink(target, at);
        return at;
    }

    Paths jsonl() const { return discoverFilesWithSuffix(root(), ".jsonl"); }

    TempDir dir_;
};

TEST_F(FileDiscoveryTest, FindsNestedFilesBySuffixSorted) {
    // Created out of order so that sorting is not an accident of creation.
    const auto deep = file("z/y/x/w/deep.jsonl");
    const auto b = file("b.jsonl");
    const auto a = file("a.jsonl");
    const auto nested = file("m/session.jsonl");
    file("m/config.json");
    file("m/.jsonl");
    file("m/old.jsonl.bak");
    file("m/notjsonl");
    fs::create_directories(root() / "empty.jsonl");  // a folder, not a file

    EXPECT_EQ(jsonl(), (Paths{a, b, nested, deep}));
}

TEST_F(FileDiscoveryTest, AcceptPredicateSeesEveryRegularFile) {
    const auto one = file("one.txt");
    const auto two = file("sub/two.bin");
    Paths offered;
    DiscoveryOptions options;
    options.accept = [&](const fs::path& p) {
        offered.push_back(p);
        return p.filename() == "two.bin";
    };
    EXPECT_EQ(discoverFiles(root(), options), Paths{two});
    std::sort(offered.begin(), offered.end());
    EXPECT_EQ(offered, (Paths{one, two}));

    EXPECT_EQ(discoverFiles(root(), DiscoveryOptions{}), (Paths{one, two}));
}

TEST_F(FileDiscoveryTest, MissingOrNonFolderRootYieldsNothing) {
    EXPECT_TRUE(discoverFilesWithSuffix(dir_ / "nowhere", ".jsonl").empty());
    const auto plain = dir_.write("plain.jsonl", "{}\n");
    EXPECT_TRUE(discoverFilesWithSuffix(plain, ".jsonl").empty());
}

TEST_F(FileDiscoveryTest, SymlinkLoopsTerminate) {
    const auto a = file("d/a.jsonl");
    const auto b = file("d/e/b.jsonl");
    link("d/up", "..");          // back to root
    link("d/e/self", ".");       // to itself
    link("d/e/grand", "../..");  // to root again, from deeper
    link("top", "root");         // unresolvable relative name: dangling
    EXPECT_EQ(jsonl(), (Paths{a, b}));
    std::vector<FileError> errors;
    (void)discoverFilesWithSuffix(root(), ".jsonl", &errors);
    // Each link that closes a loop is named, the dangling one is not.
    std::vector<std::string> named;
    for (const auto& e : errors) {
        EXPECT_EQ(e.errorNumber, ELOOP) << e.description();
        named.push_back(e.path);
    }
    std::ranges::sort(named);
    EXPECT_EQ(named, (std::vector<std::string>{(root() / "d/e/grand").string(),
                                               (root() / "d/e/self").string(),
                                               (root() / "d/up").string()}));
}

TEST_F(FileDiscoveryTest, LinkToItselfIsReportedByPath) {
    const auto a = file("a.jsonl");
    link("self.jsonl", "self.jsonl");
    link("ring1", "ring2");
    link("ring2", "ring1");
    std::vector<FileError> errors;
    EXPECT_EQ(discoverFilesWithSuffix(root(), ".jsonl", &errors), (Paths{a}));
    ASSERT_EQ(errors.size(), 3u);
    std::vector<std::string> named;
    for (const auto& e : errors) {
        EXPECT_EQ(e.errorNumber, ELOOP);
        EXPECT_NE(e.description().find(e.path), std::string::npos) << e.description();
        named.push_back(e.path);
    }
    std::ranges::sort(named);
    EXPECT_EQ(named, (std::vector<std::string>{(root() / "ring1").string(),
                                               (root() / "ring2").string(),
                                               (root() / "self.jsonl").string()}));
}

TEST_F(FileDiscoveryTest, FollowsLinksOutsideRootAndIgnoresDanglingOnes) {
    dir_.write("elsewhere/projects/p.jsonl", "{}\n");
    dir_.write("single.jsonl", "{}\n");
    const auto inside = file("own.jsonl");
    link("shared", dir_ / "elsewhere");
    link("linked.jsonl", dir_ / "single.jsonl");
    link("dangling.jsonl", dir_ / "gone.jsonl");
    link("dangling-dir", dir_ / "gone");
    EXPECT_EQ(jsonl(),
              (Paths{root() / "linked.jsonl", inside, root() / "shared/projects/p.jsonl"}));
}

// A folder reachable both directly and through a link must not be reported under one path or
// the other depending on the order the file system lists entries in: the paths are the
// sources' identities, and a file whose path changes between scans looks like a new file.
// The two mirror-image trees make the link come first in one of them whatever the order.
TEST_F(FileDiscoveryTest, FolderAlsoReachableByLinkKeepsItsOwnPath) {
    for (const auto& [real, alias] : {std::pair{"a", "b"}, std::pair{"b", "a"}}) {
        SCOPED_TRACE(std::string("real ") + real + ", link " + alias);
        TempDir tree;
        fs::create_directories(tree / "r" / real);
        fs::create_symlink(real, tree / "r" / alias);
        const auto own = tree.write(fs::path("r") / real / "s.jsonl", "{}\n");
        const auto found = discoverFilesWithSuffix(tree / "r", ".jsonl");
        EXPECT_TRUE(std::find(found.begin(), found.end(), own) != found.end())
            << "found " << ::testing::PrintToString(found);
    }
}

TEST_F(FileDiscoveryTest, IgnoresFifosAndSockets) {
    const auto real = file("real.jsonl");
    ASSERT_EQ(::mkfifo((root() / "pipe.jsonl").c_str(), 0600), 0);

    const auto socketPath = root() / "sock.jsonl";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socketPath.native().size(), sizeof address.sun_path);
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.native().size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);

    EXPECT_EQ(jsonl(), Paths{real});
    ::close(fd);
}

TEST_F(FileDiscoveryTest, MaxDepthCountsFoldersBelowRoot) {
    const Paths levels = {file("0.jsonl"), file("1/1.jsonl"), file("1/2/2.jsonl"),
                          file("1/2/3/3.jsonl")};
    for (int maxDepth = 0; maxDepth <= 3; ++maxDepth) {
        SCOPED_TRACE("maxDepth " + std::to_string(maxDepth));
        DiscoveryOptions options;
        options.maxDepth = maxDepth;
        std::vector<FileError> errors;
        options.errors = &errors;
        const Paths expected(levels.begin(), levels.begin() + maxDepth + 1);
        Paths found = discoverFiles(root(), options);
        // What the limit leaves out is said: the list is partial.
        ASSERT_EQ(errors.size(), maxDepth < 3 ? 1u : 0u);
        if (!errors.empty()) {
            EXPECT_NE(errors[0].description().find("deeper than"), std::string::npos);
        }
        std::sort(found.begin(), found.end(), [](const fs::path& l, const fs::path& r) {
            return std::distance(l.begin(), l.end()) < std::distance(r.begin(), r.end());
        });
        EXPECT_EQ(found, expected);
    }
}

TEST_F(FileDiscoveryTest, AFolderThatCannotBeListedIsSkippedAndReported) {
    const auto open = file("open/a.jsonl");
    file("closed/b.jsonl");
    fs::permissions(root() / "closed", fs::perms::none);
    std::vector<FileError> errors;
    Paths found;
    {
        test_support::Unprivileged asUser;
        found = discoverFilesWithSuffix(root(), ".jsonl", &errors);
    }
    fs::permissions(root() / "closed", fs::perms::owner_all);
    EXPECT_EQ(found, Paths{open});
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].path, (root() / "closed").string());
    EXPECT_EQ(errors[0].errorNumber, EACCES);
}

}  // namespace
}  // namespace kestrel
