#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include "common/logger.h"
#include "programs/desktop_file.h"
#include "programs/program_list.h"

using namespace Vexa;
using namespace TestSupport;
namespace fs = std::filesystem;

TEST(DesktopFile, OnlyTheDesktopEntrySectionCountsAndTheTypeIsExactlyApplication) {
    // name, localized name, exec, isApplication, terminal, hidden
    using Fields = std::tuple<std::string, std::string, std::string, bool, bool, bool>;
    const std::pair<std::string, Fields> cases[] = {
        {"[Desktop Entry]\nName=Ed\nExec=/usr/bin/ed -p x\nType=application\nTerminal=true\nHidden=true\n",
         {"Ed", "", "/usr/bin/ed -p x", true, true, true}},
        // the freedesktop standard's spelling is not taken; values are exact
        {"[Desktop Entry]\nType=Application\nTerminal=True\nHidden=1\n", {}},
        // lines before the header do not count
        {"Name=Before\nType=application\n[Desktop Entry]\nExec=ed\n", {"", "", "ed", false, false, false}},
        // any other line beginning with '[' closes the section
        {"[Desktop Entry]\nName=A\n[Desktop Action new]\nName=B\nType=application\n",
         {"A", "", "", false, false, false}},
        // "Name[ru]" wins over "Name[ru_RU]" in either order
        {"[Desktop Entry]\nName[ru]=Редактор\nName[ru_RU]=Правка\n", {"", "Редактор", "", false, false, false}},
        {"[Desktop Entry]\nName[ru_RU]=Правка\nName[ru]=Редактор\n", {"", "Редактор", "", false, false, false}},
    };
    for (const auto& [text, expected] : cases) {
        const auto e = DesktopFile::parseText(text);
        EXPECT_EQ(Fields(e.name, e.localizedName, e.exec, e.isApplication, e.terminal, e.hidden), expected) << text;
    }
}

class ProgramListReload : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(dir / "applications");
        const std::pair<const char*, const char*> entries[] = {
            {"10-sh.desktop", "Name=Shell\nName[ru]=Оболочка\nExec=/bin/sh --x %U\nType=application\n"},
            {"20-bare.desktop", "Name=Env\nExec=env -i %f\nType=application\n"},
            {"30-term.desktop", "Name=Top\nExec=env top\nTerminal=true\nType=application\n"},
            {"40-standard.desktop", "Name=Standard\nExec=env\nType=Application\n"},
            {"50-missing.desktop", "Name=Missing\nExec=vexa-no-such-program --x\nType=application\n"},
            {"60-skip.desktop", "Name=Skipped\nExec=env\nType=application\n"},
        };
        for (const auto& [file, body] : entries) {
            write("applications/" + std::string(file), "[Desktop Entry]\n" + std::string(body));
        }
    }

    fs::path write(const std::string& name, const std::string& content) const {
        std::ofstream(dir / name, std::ios::binary) << content;
        return dir / name;
    }
    void reload(const fs::path& programsFile) { list.reload(programsFile, {"60-skip.desktop"}, dir / "applications"); }

    const TempDir tempDir;
    const fs::path& dir = tempDir.path;
    ProgramList list;
};

TEST_F(ProgramListReload, DesktopApplicationsAreFollowedByTheProgramsWhoseBinaryExists) {
    const auto file = write("programs.json", R"([{"name": "Sh", "path": "/bin/sh", "args": ["-l"]},
        {"name": "Gone", "path": "/nonexistent/vexa/gone"}])");
    const auto text = logged([&] { reload(file); });
    EXPECT_EQ(list.getNames(), (std::vector<std::string>{"Оболочка", "Env", "Top", "Sh"}));
    EXPECT_EQ(list.find("Оболочка"), (Program{"Оболочка", "/bin/sh", {"--x"}}));
    EXPECT_EQ(list.find("Env"), (Program{"Env", "/usr/bin/env", {"-i"}}));
    EXPECT_EQ(list.find("Top"), (Program{"Top", "/usr/bin/xterm", {"-e", "/usr/bin/env", "top"}}));
    EXPECT_EQ(list.find("Sh"), (Program{"Sh", "/bin/sh", {"-l"}}));
    const auto missing = dir / "applications/50-missing.desktop";
    EXPECT_TRUE(contains(text, "exec not found: `vexa-no-such-program', skipped app: `" + missing.string())) << text;
    EXPECT_TRUE(contains(text, "ProgramListReload: binary not found: /nonexistent/vexa/gone for name: Gone")) << text;
}

TEST_F(ProgramListReload, ReadersSeeOnlyWholeListsWhileAnotherThreadReloads) {
    const auto small = write("small.json", R"([{"name": "A", "path": "/bin/sh"}])");
    const auto large = write("large.json", R"([{"name": "A", "path": "/bin/sh"}, {"name": "B", "path": "/bin/sh"}])");
    const std::vector<std::string> smallNames{"Оболочка", "Env", "Top", "A"};
    const std::vector<std::string> largeNames{"Оболочка", "Env", "Top", "A", "B"};
    reload(small);

    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::thread reloader([&] {
        for (int round = 0; round < 100; ++round) {
            const int before = reads;
            reload(round % 2 ? small : large);
            // The next reload waits for a read, so that reads go on through all of them.
            while (reads == before) {
                std::this_thread::yield();
            }
        }
        done = true;
    });
    int torn = 0;
    while (!done) {
        const auto names = list.getNames();
        torn += names != smallNames && names != largeNames;
        torn += !list.find("A");
        ++reads;
    }
    reloader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(list.getNames(), smallNames);
}
