// The installer's transaction (installer/plugin), driven directly on real files and the real
// registry of the Windows build (under Wine), as the plug-in drives it for the script. A run
// stopped after any one of its steps, for real (the process ends there, as when the installer
// is killed), leaves after the next recovery the version before whole, or the one after, with
// the user's files byte for byte; a second recovery changes nothing. What is not the run's own,
// beside the folder or in it, is never renamed, merged or deleted.
//   transaction_tests --scenario OPERATION STOP FOLDER   a run stopped at its STOP-th change
//       (0: never); writes how many changes it made to FOLDER\steps
#include "transaction.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace {

namespace fs = std::filesystem;
using Tree = std::map<std::wstring, std::string>; // relative path -> bytes; "dir\" empty ones

enum Operation
{
    Install,
    Upgrade,
    Uninstall,
    Recover
};
const wchar_t *const kOperations[] = {L"install", L"upgrade", L"uninstall", L"recover"};

const Tree kOld = {{L"Tandemo.exe", "old program"},
                   {L"resources\\a.dat", "old a"},
                   {L"resources\\old.dat", "only in the old version"}};
const Tree kNew = {{L"Tandemo.exe", "new program"},
                   {L"resources\\a.dat", std::string("new a\0\xff", 7)},
                   {L"plugins\\default.plg", "the new version's plug-in"},
                   {L"cache\\", ""}};
const Tree kUser = {{L"mine.txt", "the user's notes"},
                    {L"resources\\mine.txt", "kept among ours"},
                    {L"plugins\\user.plg", "a plug-in of the user's"}};

// A key of the test's own for each world.
std::wstring keyOf()
{
    static int count = 0;
    return L"Software\\CorvalenTransactionTest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(++count);
}

void write(const std::wstring &path, const std::string &bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    if (path.back() != L'\\')
        std::ofstream(fs::path(path), std::ios::binary) << bytes;
}

void plant(const std::wstring &folder, const Tree &tree)
{
    for (const auto &[path, bytes] : tree)
        write(folder + L"\\" + path, bytes);
}

Tree read(const std::wstring &folder)
{
    Tree out;
    std::error_code error;
    for (const auto &entry : fs::recursive_directory_iterator(folder, error)) {
        const std::wstring relative = fs::relative(entry.path(), folder).wstring();
        if (entry.is_directory() && fs::is_empty(entry.path()))
            out[relative + L"\\"] = "";
        else if (!entry.is_directory())
            out[relative] = std::string(std::istreambuf_iterator<char>(
                                            std::ifstream(entry.path(), std::ios::binary).rdbuf()),
                                        {});
    }
    return out;
}

std::string listOf(const Tree &version)
{
    std::string list = "Uninstall.exe\r\n";
    for (const auto &[path, bytes] : version)
        list += std::string(path.begin(), path.end()) + "\r\n";
    return list;
}

Tree merged(Tree a, const Tree &b)
{
    a.insert(b.begin(), b.end());
    return a;
}

// What the machine holds that a run may change: the folder, the registry, the shortcut.
struct State
{
    Tree files;
    std::wstring version, displayVersion;
    bool shortcut = false;
    bool operator==(const State &o) const
    {
        return files == o.files && version == o.version && displayVersion == o.displayVersion &&
               shortcut == o.shortcut;
    }
};

std::wstring readValue(const std::wstring &key, const wchar_t *name)
{
    wchar_t buffer[256] = {};
    DWORD size = sizeof buffer;
    RegGetValueW(HKEY_CURRENT_USER, key.c_str(), name, RRF_RT_REG_SZ, nullptr, buffer, &size);
    return buffer;
}

std::ostream &operator<<(std::ostream &out, const State &state)
{
    out << "version '" << std::string(state.version.begin(), state.version.end()) << "', "
        << (state.shortcut ? "a shortcut" : "no shortcut") << ", files:";
    for (const auto &[path, bytes] : state.files)
        out << " " << std::string(path.begin(), path.end()) << "=" << bytes.size();
    return out;
}

// One installation's world, in a folder of its own: the application's folder, a shortcut
// folder, and a registry key of the test's.
struct World
{
    std::wstring root, folder, link, key = keyOf();

    explicit World(const std::wstring &base)
        : root(base), folder(base + L"\\app\\Tandemo"), link(base + L"\\links\\Corvalen.lnk")
    {
        CreateDirectoryW(root.c_str(), nullptr);
        CreateDirectoryW((root + L"\\links").c_str(), nullptr);
        transaction::settings().key = key;
    }

    // A version put in place as an install leaves it, without the transaction.
    void installed(const Tree &version)
    {
        plant(folder, version);
        write(folder + L"\\Uninstall.exe", "an uninstaller");
        write(folder + L"\\Uninstall.lst", listOf(version));
        const std::wstring name = version == kOld ? L"2.0.0.0" : L"3.0.0.5";
        RegSetKeyValueW(HKEY_CURRENT_USER, key.c_str(), L"Version", REG_SZ, name.c_str(),
                        DWORD((name.size() + 1) * 2));
        RegSetKeyValueW(HKEY_CURRENT_USER, (key + L"\\Uninstall").c_str(), L"DisplayVersion",
                        REG_SZ, name.c_str(), DWORD((name.size() + 1) * 2));
        write(link, "an older shortcut");
    }

    State state() const
    {
        Tree files = read(folder);
        files.erase(L"Uninstall.exe");
        files.erase(L"Uninstall.lst");
        return {files, readValue(key, L"Version"),
                readValue(key + L"\\Uninstall", L"DisplayVersion"),
                GetFileAttributesW(link.c_str()) != INVALID_FILE_ATTRIBUTES};
    }
    State expected(const Tree &version, const Tree &user = kUser) const
    {
        const std::wstring name = version.empty() ? L"" : version == kOld ? L"2.0.0.0" : L"3.0.0.5";
        return {merged(version, user), name, name, !version.empty()};
    }

    // The run the script makes, up to its commit.
    transaction::Result run(
        Operation operation, const transaction::Log &log = [](auto &) {})
    {
        if (operation == Recover)
            return transaction::recover(log) ? transaction::Result::Done
                                             : transaction::Result::Failed;
        const std::wstring stage = transaction::begin(folder, log);
        if (stage.empty())
            return transaction::Result::Failed;
        transaction::Plan plan;
        const std::wstring version = L"3.0.0.5";
        const auto *bytes = reinterpret_cast<const BYTE *>(version.c_str());
        const std::vector<BYTE> text(bytes, bytes + (version.size() + 1) * 2);
        if (operation == Uninstall) {
            plan.uninstall = true;
            plan.values.push_back({key, L"Version", REG_NONE, {}});
            plan.removedKeys.push_back(key + L"\\Uninstall");
            plan.shortcuts.push_back({link, L"", L""});
        } else {
            for (const auto &[path, content] : kNew) {
                if (transaction::settings().hook && transaction::settings().hook(L"stage " + path))
                    return transaction::Result::Failed;
                write(stage + L"\\" + path, content);
            }
            write(stage + L"\\Uninstall.exe", "an uninstaller");
            write(stage + L"\\Uninstall.lst", listOf(kNew));
            plan.values.push_back({key, L"Version", REG_SZ, text});
            plan.values.push_back({key + L"\\Uninstall", L"DisplayVersion", REG_SZ, text});
            plan.shortcuts.push_back({link, folder + L"\\Tandemo.exe", folder});
        }
        return transaction::commit(plan, log);
    }

    ~World()
    {
        transaction::settings().hook = nullptr;
        if (!key.empty())
            RegDeleteTreeW(HKEY_CURRENT_USER, key.c_str());
        if (!root.empty())
            transaction::removeTree(root);
    }
};

std::wstring tempRoot(const std::wstring &name)
{
    wchar_t temp[MAX_PATH];
    return std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + L"corvalen-transaction-" +
           std::to_wstring(GetCurrentProcessId()) + L"-" + name;
}

std::wstring self()
{
    wchar_t path[MAX_PATH];
    return std::wstring(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
}

// This program again, running the operation up to its STOP-th change; its exit code.
DWORD scenario(Operation operation, int stop, const World &world)
{
    std::wstring command = L"\"" + self() + L"\" --scenario " + kOperations[operation] + L" " +
                           std::to_wstring(stop) + L" \"" + world.root + L"\" " + world.key;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &process))
        return DWORD(-1);
    WaitForSingleObject(process.hProcess, 60000);
    DWORD code = DWORD(-1);
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return code;
}

constexpr DWORD kStopped = 3;

class Interrupted : public testing::TestWithParam<Operation>
{};

// Every step of the operation, each a row: stopped there, and once more stopped at the first
// step of the recovery that follows, then recovered.
TEST_P(Interrupted, LeavesOneVersionWholeAfterRecoveryAtEveryStep)
{
    const Operation operation = GetParam();
    const Tree before = operation == Install ? Tree() : operation == Upgrade ? kOld : kNew;
    const Tree after = operation == Uninstall ? Tree() : kNew;
    // A first install goes into a folder that is not there yet.
    const Tree user = operation == Install ? Tree() : kUser;
    int steps = 0;
    for (int stop = 1; stop == 1 || stop <= steps; ++stop) {
        World world(tempRoot(kOperations[operation] + std::to_wstring(stop)));
        if (!before.empty())
            world.installed(before);
        plant(world.folder, user);
        const State old = world.expected(before, user), done = world.expected(after, user);
        if (stop == 1) { // the whole run, counting its steps
            World whole(tempRoot(L"whole"));
            if (!before.empty())
                whole.installed(before);
            plant(whole.folder, user);
            ASSERT_EQ(scenario(operation, 0, whole), 0u);
            EXPECT_EQ(whole.state(), done);
            std::string count = read(whole.root).at(L"steps");
            steps = std::stoi(count);
            transaction::settings().key = world.key;
        }
        SCOPED_TRACE("stopped at step " + std::to_string(stop) + " of " + std::to_string(steps));
        ASSERT_EQ(scenario(operation, stop, world), kStopped);
        const bool midRecovery = scenario(Recover, 1, world) == kStopped;
        ASSERT_TRUE(world.run(Recover) == transaction::Result::Done);
        const State recovered = world.state();
        EXPECT_TRUE(recovered == old || recovered == done)
            << recovered << (midRecovery ? " (recovery stopped once)" : "");
        ASSERT_TRUE(world.run(Recover) == transaction::Result::Done);
        EXPECT_EQ(world.state(), recovered);
        // A first install undone leaves not even the folders it made.
        if (operation == Install && recovered == old) {
            EXPECT_EQ(GetFileAttributesW((world.root + L"\\app").c_str()), INVALID_FILE_ATTRIBUTES);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Every, Interrupted, testing::Values(Install, Upgrade, Uninstall),
                         [](const auto &info) {
                             const std::wstring name = kOperations[info.param];
                             return std::string(name.begin(), name.end());
                         });

// What is not the run's own, and what Windows does that Wine does not: each row a situation
// before an upgrade or an uninstall, its result (aborted when not done), and the user's files
// afterwards beside what is then installed.
using Hook = std::function<DWORD(const std::wstring &)>;
Hook failing(const wchar_t *what, const wchar_t *where, DWORD error, int times = -1)
{
    return [=](const std::wstring &step) mutable -> DWORD {
        return step.rfind(what, 0) == 0 && step.find(where) != std::wstring::npos &&
                       (times < 0 || (times > 0 && times--))
                   ? error
                   : 0;
    };
}

struct Situation
{
    const char *name;
    Operation operation;
    std::function<void(World &)> prepare;
    transaction::Result result;
    Tree user; // the user's files afterwards, the ones planted by the world itself aside
    std::function<void(World &, const std::vector<std::wstring> &)> more;
};

const Situation kSituations[] = {
    {"no_list_uninstall_removes_no_file", Uninstall,
     [](World &w) { DeleteFileW((w.folder + L"\\Uninstall.lst").c_str()); },
     transaction::Result::Done, merged(kNew, kUser), nullptr},
    {"an_empty_list_uninstall_removes_no_file", Uninstall,
     [](World &w) { write(w.folder + L"\\Uninstall.lst", ""); }, transaction::Result::Done,
     merged(kNew, kUser), nullptr},
    {"a_hostile_list_removes_nothing_outside", Uninstall,
     [](World &w) {
         write(w.root + L"\\app\\outside.txt", "beside the folder");
         write(w.root + L"\\victim\\file.txt", "elsewhere");
         write(w.folder + L"\\Uninstall.lst",
               listOf(kNew) + "..\\outside.txt\r\n..\\..\\victim\\file.txt\r\nresources\\\r\n" +
                   std::string(w.root.begin(), w.root.end()) +
                   "\\victim\\file.txt\r\nTandemo.exe:stream\r\n\\\\server\\share\\x\r\n"
                   "resources\\..\\..\\outside.txt\r\n");
     },
     transaction::Result::Done, kUser,
     [](World &w, auto &) {
         EXPECT_EQ(read(w.root + L"\\app").count(L"outside.txt"), 1u);
         EXPECT_EQ(read(w.root + L"\\victim"), (Tree{{L"file.txt", "elsewhere"}}));
     }},
    {"users_old_and_new_beside_the_folder", Upgrade,
     [](World &w) { plant(w.folder + L".old", kUser), plant(w.folder + L".new", kOld); },
     transaction::Result::Done, kUser,
     [](World &w, auto &) {
         EXPECT_EQ(read(w.folder + L".old"), kUser);
         EXPECT_EQ(read(w.folder + L".new"), kOld);
     }},
    {"a_users_file_where_a_new_one_goes", Upgrade,
     [](World &w) {
         write(w.folder + L"\\plugins\\default.plg", "the user's own default");
         write(w.folder + L"\\cache", "a file where a folder of ours goes");
     },
     transaction::Result::Done,
     merged(kUser, {{L"plugins\\default (用户文件).plg", "the user's own default"},
                    {L"cache (用户文件)", "a file where a folder of ours goes"}}),
     [](World &, auto &log) {
         EXPECT_TRUE(std::any_of(log.begin(), log.end(),
                                 [](auto &line) { return line.find(L"kept the user's") == 0; }));
     }},
    {"a_file_held_for_a_moment", Upgrade,
     [](World &) {
         transaction::settings().hook = failing(L"", L"Tandemo.exe ->", ERROR_SHARING_VIOLATION, 2);
     },
     transaction::Result::Done, kUser, nullptr},
    {"a_file_held_throughout", Upgrade,
     [](World &) {
         transaction::settings().hook = failing(L"move", L"plugins", ERROR_SHARING_VIOLATION);
     },
     transaction::Result::Locked, kUser, nullptr},
    {"a_registry_value_that_cannot_be_written", Upgrade,
     [](World &) {
         transaction::settings().hook = failing(L"", L"DisplayVersion", ERROR_WRITE_PROTECT);
     },
     transaction::Result::Failed, kUser, nullptr},
};

class Ownership : public testing::TestWithParam<Situation>
{};

TEST_P(Ownership, NothingOfTheUsersIsLost)
{
    const Situation &situation = GetParam();
    World world(tempRoot(L"owner"));
    const Tree before = situation.operation == Upgrade ? kOld : kNew;
    world.installed(before);
    plant(world.folder, kUser);
    transaction::settings().hook = [](const std::wstring &) -> DWORD { return 0; };
    situation.prepare(world);
    std::vector<std::wstring> log;
    const transaction::Result result =
        world.run(situation.operation, [&log](const std::wstring &line) { log.push_back(line); });
    EXPECT_EQ(result, situation.result);
    if (result != transaction::Result::Done) {
        EXPECT_TRUE(transaction::abort([](auto &) {}));
    }
    const Tree after = situation.operation == Uninstall ? Tree() : kNew;
    const bool done = situation.result == transaction::Result::Done;
    EXPECT_EQ(world.state(), world.expected(done ? after : before, situation.user));
    if (situation.more)
        situation.more(world, log);
}

INSTANTIATE_TEST_SUITE_P(Situations, Ownership, testing::ValuesIn(kSituations),
                         [](const auto &info) { return std::string(info.param.name); });

// Names that differ only in case are one name to Windows: the user's folder is where ours go,
// and a listed file in another case is ours.
TEST(NamesInAnotherCase, AreTheSameNameToWindows)
{
    World world(tempRoot(L"case"));
    world.installed(kOld);
    plant(world.folder, kUser);
    transaction::removeTree(world.folder + L"\\plugins");
    write(world.folder + L"\\PLUGINS\\user.plg", "a plug-in of the user's");
    write(world.folder + L"\\Resources\\OLD.dat", "listed in another case");
    write(world.folder + L"\\Uninstall.lst", listOf(kOld) + "RESOURCES\\OLD.DAT\r\n");
    EXPECT_EQ(world.run(Upgrade), transaction::Result::Done);
    const Tree files = world.state().files;
    EXPECT_EQ(files.count(L"PLUGINS\\user.plg") + files.count(L"PLUGINS\\default.plg"), 2u);
    EXPECT_EQ(files.count(L"resources\\old.dat") + files.count(L"Resources\\OLD.dat"), 0u);
}

TEST(FileList, OnlyPlainPathsBelowTheFolder)
{
    for (const wchar_t *plain : {L"a", L"Tandemo.exe", L"resources\\a b\\中文.dat", L".hidden"})
        EXPECT_TRUE(transaction::isPlainRelativePath(plain));
    for (const wchar_t *hostile :
         {L"", L"..", L"..\\x", L"a\\..\\..\\x", L"C:\\x", L"C:x", L"\\x", L"\\\\server\\share",
          L"a\\", L"a\\\\b", L"x:stream", L"a.", L"a ", L"a/b", L"a*", L"a\tb", L"."})
        EXPECT_FALSE(transaction::isPlainRelativePath(hostile));
}

} // namespace

// --scenario OPERATION STOP ROOT KEY: the operation in ROOT's world, the process ended at its
// STOP-th change.
int scenario(wchar_t **argv)
{
    int operation = 0;
    while (wcscmp(kOperations[operation], argv[2]) != 0)
        ++operation;
    const int stop = _wtoi(argv[3]);
    World world(argv[4]);
    world.key = argv[5];
    transaction::settings().key = world.key;
    transaction::settings().retryWaits.clear();
    int steps = 0;
    transaction::settings().hook = [&](const std::wstring &) -> DWORD {
        if (++steps == stop)
            TerminateProcess(GetCurrentProcess(), kStopped);
        return 0;
    };
    const transaction::Result result = world.run(Operation(operation));
    write(world.root + L"\\steps", std::to_string(steps));
    world.root.clear(); // the world stays for the test to look at
    world.key.clear();
    return result == transaction::Result::Done ? 0 : 1;
}

int wmain(int argc, wchar_t **argv)
{
    if (argc == 6 && wcscmp(argv[1], L"--scenario") == 0)
        return scenario(argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
