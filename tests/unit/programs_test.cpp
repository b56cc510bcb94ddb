#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/json_config.h"
#include "common/logger.h"
#include "programs/desktop_file.h"
#include "programs/program_list.h"

using namespace Vexa;
namespace fs = std::filesystem;

namespace {

// Everything the call logs, through the console sink.
std::string logged(const std::function<void()>& call) {
    Syslog::setDebugLevel(DebugLevel::Console);
    ::testing::internal::CaptureStderr();
    call();
    Syslog::setDebugLevel(DebugLevel::None);
    return ::testing::internal::GetCapturedStderr();
}

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

class TempDir {
public:
    TempDir() {
        std::string name = (fs::temp_directory_path() / "vexa-programs-XXXXXX").string();
        path = ::mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    fs::path write(const std::string& name, const std::string& content) const {
        fs::create_directories((path / name).parent_path());
        std::ofstream(path / name, std::ios::binary) << content;
        return path / name;
    }
    fs::path path;
};

std::string entry(const std::string& body) {
    return "[Desktop Entry]\n" + body;
}

} // namespace

TEST(DesktopFile, OnlyTheDesktopEntrySectionCountsAndKeysAreExactPrefixes) {
    // name, exec, isApplication, terminal, hidden
    using Fields = std::tuple<std::string, std::string, bool, bool, bool>;
    const std::pair<std::string, Fields> cases[] = {
        {entry("Name=Ed\nExec=/usr/bin/ed -p x\nType=Application\nTerminal=true\nHidden=true"),
         {"Ed", "/usr/bin/ed -p x", true, true, true}},
        {entry("Type=application\nTerminal=True\nHidden=1\n"), {"", "", true, false, false}},
        {"Name=Before\nType=Application\n[Desktop Entry]\nExec=ed\n", {"", "ed", false, false, false}},
        // the header must be exactly "[Desktop Entry]"
        {"[Desktop Entry] \nName=A\n", {"", "", false, false, false}},
        {"[desktop entry]\nName=A\n", {"", "", false, false, false}},
        {"[Desktop Entry]\r\nName=A\r\n", {"", "", false, false, false}},
        // any other line beginning with '[' closes it; the header opens it again
        {entry("Name=A\n[Desktop Action new]\nName=B\nType=Application\nTerminal=true\n"),
         {"A", "", false, false, false}},
        {entry("Name=A\n[\nName=B\n[Desktop Entry]\nExec=c\n"), {"A", "c", false, false, false}},
        // exact, case-sensitive keys; later lines overwrite earlier ones
        {entry("name=a\nName =c\n Name=d\nexec=y\nType=Applications\n"), {"", "", false, false, false}},
        {entry("Name=first\nName=second\nExec=two words \nType=Application\nType=Link\nTerminal=true\n"
               "Terminal=false\n"),
         {"second", "two words ", false, false, false}},
    };
    for (const auto& [text, expected] : cases) {
        const auto e = DesktopFile::parseText(text);
        EXPECT_EQ(Fields(e.name, e.exec, e.isApplication, e.terminal, e.hidden), expected) << text;
    }
    const auto e = DesktopFile::parseText(entry("GenericName=Text Editor\nGenericName[ru]=Редактор\n"));
    EXPECT_EQ(std::make_pair(e.genericName, e.localizedGenericName),
              std::make_pair(std::string("Text Editor"), std::string("Редактор")));
}

TEST(DesktopFile, RussianNameWinsOverRegionalNameInEitherOrderAndFirstRegionalNameWins) {
    const std::pair<std::string, std::string> cases[] = {
        {"Name[ru]=Редактор\nName[ru_RU]=Правка\n", "Редактор"},
        {"Name[ru_RU]=Правка\nName[ru]=Редактор\n", "Редактор"},
        {"Name[ru_RU]=Первый\nName[ru_RU]=Второй\n", "Первый"},
        {"Name[ru]=Один\nName[ru]=Два\n", "Два"},
        {"Name[de]=Editor\nName[ru_UA]=x\n", ""},
    };
    for (const auto& [body, localized] : cases) {
        EXPECT_EQ(DesktopFile::parseText(entry("Name=Editor\n" + body)).localizedName, localized) << body;
    }
}

TEST(ExecLine, ProgramIsBeforeTheFirstBlankAndFieldCodesAreDropped) {
    using Args = std::list<std::string>;
    const std::tuple<std::string, std::string, Args> cases[] = {
        {"vim %F", "vim", {}},
        {"app --new-window %U --name=%c -x", "app", {"--new-window", "-x"}},
        {"app %i %k %f %u %d %D %n %N %v %m", "app", {}},
        {"app 100%% %%u", "app", {"100%", "%u"}},
        {"app trailing%", "app", {}},
        {R"(sh -c "echo \"hi\" \$HOME \\ \`x\`" last)", "sh", {"-c", R"(echo "hi" $HOME \ `x`)", "last"}},
        {R"(app "" "a b"c)", "app", {"", "a bc"}},
        {R"(app "unterminated quote)", "app", {"unterminated quote"}},
        {R"(app a\sb "c\sd" \\x)", "app", {"a", "b", "c d", R"(\x)"}},
        // the program itself is taken as written, quotes and all
        {R"("/opt/My App/run" --go)", R"("/opt/My)", {"App/run --go"}},
    };
    for (const auto& [exec, program, args] : cases) {
        const auto split = ExecLine::split(exec);
        EXPECT_EQ(split.program, program) << exec;
        EXPECT_EQ(split.args, args) << exec;
    }
}

TEST(Program, JsonElementsConvertWithEmptyValuesForMissingKeysAndRefuseOtherTypes) {
    const std::pair<std::string, std::optional<Program>> cases[] = {
        {R"({"name": "Calc", "path": "/usr/bin/calc", "args": ["-a", "b c"]})",
         Program{"Calc", "/usr/bin/calc", {"-a", "b c"}}},
        {R"({})", Program{}},
        {R"({"name": "Calc", "path": "/x", "args": [], "icon": 5})", Program{"Calc", "/x", {}}},
        {R"({"name": 5, "path": "/x"})", std::nullopt},
        {R"({"name": "a", "path": "/x", "args": "-a"})", std::nullopt},
        {R"({"name": "a", "path": "/x", "args": ["-a", 1]})", std::nullopt},
        {R"(["name", "path"])", std::nullopt},
    };
    for (const auto& [text, program] : cases) {
        EXPECT_EQ(programFromJson(parseJsonStrict(text)), program) << text;
    }
}

TEST(Program, IconIsTheFileNameOfThePathWithThePngExtension) {
    const std::pair<fs::path, fs::path> cases[] = {
        {"/usr/bin/xterm", "/icons/xterm.png"},
        {"/usr/bin/python3.11", "/icons/python3.png"},
        {"/opt/app/run.sh", "/icons/run.png"},
    };
    for (const auto& [path, icon] : cases) {
        EXPECT_EQ(programIconPath(Program{"p", path, {}}, "/icons"), icon);
    }
    EXPECT_EQ(programIconPath(Program{"p", "/usr/bin/xterm", {}}),
              fs::path("/usr/share/icons/hicolor/32x32/apps/xterm.png"));
}

class ProgramListReload : public ::testing::Test {
protected:
    ProgramListReload() {
        Syslog::setDebugLevel(DebugLevel::None);
        tool = apps.write("bin/tool", "#!/bin/sh\n");
        apps.write("applications/10-tool.desktop",
                   entry("Name=Tool\nName[ru]=Инструмент\nExec=" + tool.string() + " --x %U\nType=Application\n"));
        apps.write("applications/20-bare.desktop", entry("Name=Env\nExec=env -i %f\nType=Application\n"));
        apps.write("applications/30-term.desktop", entry("Name=Top\nExec=env top\nTerminal=true\nType=Application\n"));
        apps.write("applications/40-hidden.desktop", entry("Name=Hidden\nExec=env\nHidden=true\nType=Application\n"));
        apps.write("applications/50-link.desktop", entry("Name=Link\nExec=env\nType=Link\n"));
        apps.write("applications/60-noexec.desktop", entry("Name=NoExec\nType=Application\n"));
        apps.write("applications/70-missing.desktop",
                   entry("Name=Missing\nExec=vexa-no-such-program --x\nType=Application\n"));
        apps.write("applications/80-noname.desktop", entry("Exec=env\nType=Application\n"));
        apps.write("applications/90-skip.desktop", entry("Name=Skipped\nExec=env\nType=Application\n"));
        apps.write("applications/readme.txt", entry("Name=Text\nExec=env\nType=Application\n"));
    }

    fs::path programsFile(const std::string& content) { return apps.write("programs.json", content); }

    std::string reload(const fs::path& file) {
        return logged([&] { list.reload(file, {"90-skip.desktop"}, apps.path / "applications"); });
    }

    TempDir apps;
    fs::path tool;
    ProgramList list;
    const std::vector<std::string> desktopNames{"Инструмент", "Env", "Top"};
};

TEST_F(ProgramListReload, DesktopEntriesArePublishedInFileOrderWithTheirProgramsResolved) {
    const auto text = reload(programsFile("[]"));
    EXPECT_EQ(list.getNames(), desktopNames);
    EXPECT_EQ(list.find("Инструмент"), (Program{"Инструмент", tool, {"--x"}}));
    EXPECT_EQ(list.find("Env"), (Program{"Env", "/usr/bin/env", {"-i"}}));
    EXPECT_EQ(list.find("Top"), (Program{"Top", "/usr/bin/xterm", {"-e", "/usr/bin/env", "top"}}));
    EXPECT_EQ(list.find("Tool"), std::nullopt);
    for (const auto* left : {"Hidden", "Link", "NoExec", "Missing", "Skipped", "Text"}) {
        EXPECT_EQ(list.find(left), std::nullopt) << left;
    }
    const auto noexec = (apps.path / "applications/60-noexec.desktop").string();
    const auto missing = (apps.path / "applications/70-missing.desktop").string();
    EXPECT_TRUE(contains(text, "ProgramListReload: exec not found: `', skipped app: `" + noexec + "'")) << text;
    EXPECT_TRUE(
        contains(text, "ProgramListReload: exec not found: `vexa-no-such-program', skipped app: `" + missing + "'"))
        << text;
    EXPECT_TRUE(contains(text, "ProgramListReload: invalid name, skipped app: `" + apps.path.string() +
                                   "/applications/80-noname.desktop'"))
        << text;
}

TEST_F(ProgramListReload, FileProgramsFollowInFileOrderAndThoseWithoutBinaryAreDropped) {
    const auto file = programsFile(R"([
        {"name": "Shell", "path": "/bin/sh", "args": ["-l"]},
        {"name": "Gone", "path": "/nonexistent/vexa/gone"},
        {"name": "Relative", "path": "bin/tool"},
        {"name": "Dir", "path": "/usr/bin"},
        {"name": 7, "path": "/bin/sh"},
        {"name": "Env", "path": "/usr/bin/env"},
        {"name": ")"
                                   "\xff\xfe"
                                   R"(", "path": "/bin/sh"},
        {"name": "", "path": "/bin/sh"}
    ])");
    // Names relative to the working directory are never taken, even where they would resolve.
    apps.write("applications/75-relative.desktop", entry("Name=Relative\nExec=bin/tool\nType=Application\n"));
    const auto cwd = fs::current_path();
    fs::current_path(apps.path);
    const auto text = reload(file);
    fs::current_path(cwd);
    auto expected = desktopNames;
    expected.insert(expected.end(), {"Shell", "Env"});
    EXPECT_EQ(list.getNames(), expected);
    EXPECT_EQ(list.find("Shell"), (Program{"Shell", "/bin/sh", {"-l"}}));
    // the first of two programs with one name is found
    EXPECT_EQ(list.find("Env"), (Program{"Env", "/usr/bin/env", {"-i"}}));
    EXPECT_TRUE(contains(text, "ProgramListReload: binary not found: /nonexistent/vexa/gone for name: Gone")) << text;
    EXPECT_TRUE(contains(text, "ProgramListReload: binary not found: bin/tool for name: Relative")) << text;
    EXPECT_TRUE(contains(text, "ProgramListReload: binary not found: /usr/bin for name: Dir")) << text;
    EXPECT_TRUE(contains(text, "ProgramListReload: invalid program, index: 4, file: " + file.string())) << text;
    EXPECT_TRUE(contains(text, "ProgramListReload: invalid name, skipped app: `" + file.string() + "'")) << text;
}

TEST_F(ProgramListReload, AProgramsFileThatIsNoArrayOrMissingAddsNothing) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"name": "Shell", "path": "/bin/sh"})", "ProgramListReload: not json array: "},
        {"[{\"name\": \"Shell\", \"path\": \"/bin/sh\"},", "ProgramListReload: not json array: "},
        {"", "ProgramListReload: path not found: "},
    };
    for (const auto& [content, message] : cases) {
        const auto file = content.empty() ? apps.path / "missing.json" : programsFile(content);
        const auto text = reload(file);
        EXPECT_EQ(list.getNames(), desktopNames) << content;
        EXPECT_TRUE(contains(text, message + file.string())) << text;
    }
}

TEST_F(ProgramListReload, ReadersSeeOnlyWholeListsWhileAnotherThreadReloads) {
    const auto small = apps.write("small.json", R"([{"name": "Shell", "path": "/bin/sh"}])");
    const auto large = apps.write("large.json", R"([{"name": "Shell", "path": "/bin/sh"},
        {"name": "Second", "path": "/bin/sh"}, {"name": "Third", "path": "/bin/sh"}])");
    auto withDesktop = [this](std::vector<std::string> names) {
        names.insert(names.begin(), desktopNames.begin(), desktopNames.end());
        return names;
    };
    const auto smallNames = withDesktop({"Shell"});
    const auto largeNames = withDesktop({"Shell", "Second", "Third"});
    list.reload(small, {"90-skip.desktop"}, apps.path / "applications");

    std::atomic<bool> done{false};
    std::thread reloader([&] {
        for (int round = 0; round < 100; ++round) {
            list.reload(round % 2 ? small : large, {"90-skip.desktop"}, apps.path / "applications");
        }
        done = true;
    });
    int torn = 0;
    int reads = 0;
    while (!done) {
        const auto names = list.getNames();
        torn += names != smallNames && names != largeNames;
        torn += !list.find("Shell");
        ++reads;
    }
    reloader.join();
    EXPECT_EQ(torn, 0) << "of " << reads << " reads";
    EXPECT_EQ(list.getNames(), smallNames);
}
