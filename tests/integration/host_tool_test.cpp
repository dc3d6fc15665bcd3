// plc-host against plc-sim. The tool drives the driver as the panel runtime
// does, so what it writes must land in the controller's variables, what it
// prints must be what the controller holds (in the value syntax plc-sim takes),
// and its refusals, explanations and exit statuses must tell a person or a
// script what went wrong, before any traffic when it can.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

// The tests' tag list with the types it lacks: no fixed width, moved as bytes.
const std::string kMoreTags = "Shift,TIME_OF_DAY,,,,,,27\nMade,DATE,,,,,,28\n"
                              "Stamp,DATE_AND_TIME,,,,,,29\nPeriod,STIME,,,,,,30\n"
                              "Code2,STRING2,,,,,,31\nCodes,STRING2,[0..3],,,,,32\n";

class HostTool : public DriverFixture {
protected:
    void StartAll(std::vector<std::string> sets = {}, std::vector<std::string> extra = {}) {
        StartSim(std::move(sets), std::move(extra), ReadWholeFile(TestTagListPath()) + kMoreTags);
    }
    static std::vector<std::string> Argv(const std::vector<std::string> &args) {
        std::vector<std::string> argv = {HostPath(), "--controller",      "127.0.0.1",
                                         "--lib",    DriverLibraryPath(), "--quiet"};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }
    RunResult Tool(const std::vector<std::string> &args) {
        return RunProgram(Argv(args), dir.path());
    }
    std::string Stored(const std::string &name, size_t index) const {
        const auto values = sim.Values(name);
        return values && values->size() > index ? (*values)[index] : "<none>";
    }
};

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string Join(const std::vector<std::string> &args) {
    std::string s;
    for (const std::string &a : args) s += (s.empty() ? "" : " ") + a;
    return s;
}

bool Has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Every type, written in the syntax plc-sim's --set takes: the controller must
// hold it, and a read must print it back the same way, without the driver's
// own diagnostics.
TEST_F(HostTool, WritesAndReadsBackEveryType) {
    StartAll();
    struct Case {
        std::vector<std::string> write; // NAME VALUE...
        std::vector<std::string> read;  // NAME [COUNT]
        const char *stored_name;
        size_t index; // element position in the store line
        const char *stored;
        const char *printed;
    };
    const std::vector<Case> cases = {
        {{"Temperature", "-21.25"},
         {"Temperature"},
         "Temperature",
         0,
         "-21.25",
         "Temperature = -21.25\n"},
        // Both words differ and the high one carries the sign.
        {{"Total", "-81985529216486896"},
         {"Total"},
         "Total",
         0,
         "-81985529216486896",
         "Total = -81985529216486896\n"},
        {{"Big", "0xFEDCBA9876543210"},
         {"Big"},
         "Big",
         0,
         "18364758544493064720",
         "Big = 18364758544493064720\n"},
        {{"Masks[3]", "0x8000000000000001"},
         {"Masks[3]"},
         "Masks",
         3,
         "9223372036854775809",
         "Masks[3] = 0x8000000000000001\n"},
        {{"Levels[5]", "-2.75"}, {"Levels[5]"}, "Levels", 4, "-2.75", "Levels[5] = -2.75\n"},
        {{"Label", "Hello world"},
         {"Label"},
         "Label",
         0,
         "Hello world",
         "Label = \"Hello world\"\n"},
        // A shorter text leaves nothing of the longer one behind it.
        {{"Label", "Hi"}, {"Label"}, "Label", 0, "Hi", "Label = \"Hi\"\n"},
        {{"Code2", "AB12"}, {"Code2", "5"}, "Code2", 0, "AB12", "Code2 = \"AB12\"\n"},
        {{"Running", "TRUE"}, {"Running"}, "Running", 0, "true", "Running = true\n"},
        {{"Flags[2..4]", "1", "0", "true"},
         {"Flags[2..4]"},
         "Flags",
         4,
         "true",
         "Flags[2] = true\nFlags[3] = false\nFlags[4] = true\n"},
        {{"Duration", "1h2m3.0045s"},
         {"Duration"},
         "Duration",
         0,
         "3723004500000ns",
         "Duration = 1h2m3.0045s\n"},
        {{"Period", "250us"}, {"Period"}, "Period", 0, "250000ns", "Period = 250us\n"},
        // A plain number is milliseconds for every time type, as for plc-sim --set.
        {{"Shift", "1000"}, {"Shift"}, "Shift", 0, "1000000000ns", "Shift = 00:00:01\n"},
        {{"Shift", "08:30:15.5"},
         {"Shift"},
         "Shift",
         0,
         "30615500000000ns",
         "Shift = 08:30:15.5\n"},
        {{"Made", "2024-02-29"},
         {"Made"},
         "Made",
         0,
         "1709164800000000000ns",
         "Made = 2024-02-29\n"},
        {{"Stamp", "1969-12-31-23:59:59"},
         {"Stamp"},
         "Stamp",
         0,
         "-1000000000ns",
         "Stamp = 1969-12-31-23:59:59\n"},
        {{"Speeds[3..4]", "300", "-2"},
         {"Speeds[3..4]"},
         "Speeds",
         4,
         "-2",
         "Speeds[3] = 300\nSpeeds[4] = -2\n"},
        {{"Ranks[10]", "-7"}, {"Ranks[10]"}, "Ranks", 9, "-7", "Ranks[10] = -7\n"},
        {{"Grid[2,2]", "77"}, {"Grid[2,2]"}, "Grid", 7, "77", "Grid[2,2] = 77\n"},
        {{"Cube[1,2,3]", "-99"}, {"Cube[23]"}, "Cube", 23, "-99", "Cube[1,2,3] = -99\n"},
        {{"Bytes[1..2]", "-1", "0x7F"},
         {"Bytes[1..2]"},
         "Bytes",
         1,
         "-1",
         "Bytes[1] = -1\nBytes[2] = 127\n"},
        {{"Small[4]", "200"}, {"Small[4]"}, "Small", 4, "200", "Small[4] = 200\n"},
        {{"Code", "4000000000"}, {"Code"}, "Code", 0, "4000000000", "Code = 4000000000\n"},
        {{"Ratio", "65535"}, {"Ratio"}, "Ratio", 0, "65535", "Ratio = 65535\n"},
        {{"Raw", "165"}, {"Raw"}, "Raw", 0, "165", "Raw = 0xA5\n"},
        {{"Status", "0x1F"}, {"Status"}, "Status", 0, "31", "Status = 0x001F\n"},
        {{"Pattern", "0x12345678"},
         {"Pattern"},
         "Pattern",
         0,
         "305419896",
         "Pattern = 0x12345678\n"},
        {{"Station,1,Speed", "-300"},
         {"Station,1,Speed"},
         "Station,1,Speed",
         0,
         "-300",
         "Station,1,Speed = -300\n"},
        {{"Group2[3]", "-5"}, {"Group2[3]"}, "Group2", 3, "-5", "Group2[3] = -5\n"},
        {{"Far0", "0.5"}, {"Far0"}, "Far0", 0, "0.5", "Far0 = 0.5\n"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = {"write"};
        args.insert(args.end(), c.write.begin(), c.write.end());
        const RunResult w = Tool(args);
        EXPECT_EQ(w.status, 0) << Join(args) << ": " << w.err;
        EXPECT_EQ(Stored(c.stored_name, c.index), c.stored) << Join(args);
        args = {"read"};
        args.insert(args.end(), c.read.begin(), c.read.end());
        const RunResult r = Tool(args);
        EXPECT_EQ(r.status, 0) << Join(args) << ": " << r.err;
        EXPECT_EQ(r.out, c.printed) << Join(args);
        EXPECT_EQ(r.err, "") << Join(args) << ": the driver's diagnostics are hidden by default";
    }
    const RunResult shown = Tool({"--driver-log", "read", "Counter"});
    EXPECT_TRUE(Has(shown.err, "[PLC] init ok")) << shown.err;
    EXPECT_EQ(shown.out, "Counter = 0\n");
}

TEST_F(HostTool, JsonOutputCarriesNamesTypesAndValues) {
    StartAll({"Speeds[3]=300", "Speeds[4]=-2", "Label=say \"hi\" \\", "Total=0x1122334455667788",
              "Grid[2,4]=55", "Made=2024-03-15"});
    RunResult r = Tool({"--json", "read", "Speeds[3..4]"});
    EXPECT_EQ(r.out,
              "{\"status\":0,\"values\":[{\"name\":\"Speeds[3]\",\"type\":\"INT\",\"value\":300},"
              "{\"name\":\"Speeds[4]\",\"type\":\"INT\",\"value\":-2}]}\n");
    r = Tool({"--json", "--verify", "write", "Counter", "7"});
    EXPECT_EQ(r.out, "{\"status\":0,\"written\":[{\"name\":\"Counter\",\"status\":0}],\"verified\":"
                     "[{\"name\":\"Counter\",\"written\":7,\"read\":7,\"same\":true}]}\n");
    r = Tool({"--verify", "write", "Duration", "2s"});
    EXPECT_EQ(r.out, "Duration: wrote 2s, reads back 2s\n");

    // 104 records in two batch calls, and the date through the single read.
    r = Tool({"--json", "poll", "Total", "Duration", "Temperature", "Cube", "Label", "Levels",
              "Masks", "Speeds", "Ranks", "Grid", "Made", "--times", "2", "--interval", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].rfind("{\"poll\":" + std::to_string(i + 1) + ",\"status\":0,", 0), 0u);
        for (const char *part :
             {"\"calls\":3,",
              "{\"name\":\"Total\",\"type\":\"LINT\",\"value\":1234605616436508552}",
              "{\"name\":\"Duration\",\"type\":\"TIME\",\"value\":\"2s\"}",
              "{\"name\":\"Label\",\"type\":\"STRING\",\"value\":\"say \\\"hi\\\" \\\\\"}",
              "{\"name\":\"Grid[2,4]\",\"type\":\"INT\",\"value\":55}",
              "{\"name\":\"Made\",\"type\":\"DATE\",\"value\":\"2024-03-15\"}]}"})
            EXPECT_TRUE(Has(lines[i], part)) << part << " in " << lines[i];
    }
    // A refusal is an object too, with the exit status.
    r = Tool({"--json", "read", "Nope"});
    EXPECT_EQ(r.status, 65);
    EXPECT_EQ(r.out,
              "{\"status\":65,\"error\":\"unknown variable 'Nope' (not in PLC7F000001_1.csv)\"}\n");
}

TEST_F(HostTool, RefusesUnknownNamesAndIndexesWithoutTraffic) {
    StartAll({"Matrix[2,1]=true"});
    dir.Write("names.txt", "Counter\nNope[1]\n");
    const auto before = sim.Stats();
    struct Case {
        std::vector<std::string> args;
        std::string message;
        int status = 65;
    };
    const std::vector<Case> cases = {
        {{"read", "Nope"}, "unknown variable 'Nope' (not in PLC7F000001_1.csv)"},
        {{"write", "Nope[2]", "1"}, "unknown variable 'Nope'"},
        {{"read", "Ranks[0]"}, "index outside the bounds Ranks[1..10]"},
        {{"write", "Grid[3,0]", "1"}, "index outside the bounds Grid[1..2,0..4]"},
        {{"read", "Grid[1,2,0]"}, "Grid has 2 dimension(s)"},
        {{"read", "Cube[24]"}, "linear position 24 outside 0..23"},
        {{"read", "Speeds[8]", "3"},
         "3 element(s) from Speeds[8] run past the end of Speeds[0..9]"},
        {{"write", "Speeds[9]", "1", "2"},
         "2 value(s) from Speeds[9] run past the end of Speeds[0..9]"},
        {{"read", "Label[2]"}, "'Label' is not an array"},
        {{"poll", "--file", "names.txt", "--times", "1"}, "unknown variable 'Nope'"},
        {{"write", "Shift", "25:00"}, "expected a time of day like 13:45:30.5", 64},
        {{"write", "Made", "2023-02-29"}, "expected a date like 2024-03-15", 64},
        {{"write", "Status", "0x10000"}, "out of range", 64},
        {{"write", "Duration", "-1s"}, "a TIME written by the driver cannot be negative", 64},
        // The driver moves a text whole: another element would come back
        // under this one's name.
        {{"read", "Codes[3]"}, "arrays of STRING2 cannot be addressed by the host", 3},
        {{"poll", "Codes", "--times", "1"}, "arrays of STRING2 cannot be addressed by the host", 3},
        // The driver would resolve it as "Matrix[9]", which the controller refuses.
        {{"write", "Matrix[2,1]", "false"},
         "cannot write elements of a multi-dimensional BOOL array",
         3},
    };
    for (const Case &c : cases) {
        const RunResult r = Tool(c.args);
        EXPECT_EQ(r.status, c.status) << Join(c.args);
        EXPECT_EQ(r.out, "") << Join(c.args);
        EXPECT_TRUE(Has(r.err, c.message)) << Join(c.args) << ": " << r.err;
    }
    EXPECT_EQ(sim.Stats(), before) << "a refused request reached the controller";
}

// What went wrong, in words, with the status a script can act on: 2 may pass
// with a retry, 3 needs the configuration changed.
TEST_F(HostTool, FailuresAreExplained) {
    struct Case {
        std::vector<std::string> sim_extra; // none: no controller at all
        bool start_sim;
        std::vector<std::string> args;
        std::string message;
        int status;
    };
    const std::vector<Case> cases = {
        {{},
         false,
         {"read", "Counter"},
         "connection refused: nothing listens on port 44818 at 127.0.0.1",
         2},
        {{"--refuse-forward-open"},
         true,
         {"write", "Counter", "1"},
         "the controller refused the connection (Forward_Open)",
         2},
        {{"--fault", "write:status=05"},
         true,
         {"write", "Counter", "1"},
         "the controller refused the write, or its reply was not the expected one: the value was "
         "not written",
         2},
        {{}, true, {"read", "Ghost"}, "variable Ghost is not known to the controller", 3},
        {{}, true, {"--device", "2", "read", "Counter"}, "cannot open PLC7F000001_2.csv", 3},
    };
    for (const Case &c : cases) {
        if (c.start_sim) StartAll({}, c.sim_extra);
        // A variable of the panel's list that the controller's program lacks.
        dir.Write(kTagListName,
                  ReadWholeFile(TestTagListPath()) + kMoreTags + "Ghost,DINT,,,,,,33\n");
        const RunResult r = Tool(c.args);
        EXPECT_EQ(r.status, c.status) << Join(c.args);
        EXPECT_EQ(r.out, "") << Join(c.args);
        EXPECT_TRUE(Has(r.err, c.message)) << Join(c.args) << ": " << r.err;
        if (c.start_sim) sim.Kill();
    }
    const RunResult r = Tool({"poll", "Counter", "Speeds[1]", "--times", "2", "--interval", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(Lines(r.out).size(), 2u) << r.out;
    EXPECT_TRUE(Has(r.out, "poll 2 status 2 ")) << r.out;
    EXPECT_TRUE(Has(r.out, ": Counter=? Speeds[1]=?")) << r.out;
}

// A driver call may wait 10 s for a reply; Ctrl-C must not.
TEST_F(HostTool, InterruptEndsAWaitingCallAtOnce) {
    StartAll({}, {"--fault", "register:no-reply"});
    const std::vector<std::string> args = Argv({"read", "Counter"});
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::vector<char *> argv;
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    // Interrupted only once it waits for the reply that will not come.
    for (int i = 0; i < 1000 && sim.Stat("register_requests") == 0; ++i) ::usleep(10000);
    ASSERT_EQ(sim.Stat("register_requests"), 1u);
    const auto sent = std::chrono::steady_clock::now();
    ::kill(pid, SIGINT);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status;
}

TEST_F(HostTool, CheckTellsWhatTheDriverCannotTake) {
    struct Case {
        std::string list;
        int status;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"A,DINT,,,,,,0\nB,DINT,,,,,,1\n", 0, "ok: the driver takes every line"},
        {"A,DINT,,,,,,0\nB,DINT,,,,,,2\n", 3,
         "refused: the driver refuses l.csv line 2 has plain tag id 2 where 1 was expected"},
        {"A,DINT,,,,,,0\nB,DINT,,,,,,1", 3,
         "skipped: line 2 (B) has no newline at its end: the driver skips it"},
        {"G,DINT,,,,,,262144\nH,DINT,,,,,,262146\n", 3,
         "unreachable: tag ids 262144 to 262144 (1 variable(s) from G) cannot be reached: the "
         "group starting at 262146"},
    };
    for (const Case &c : cases) {
        dir.Write("l.csv", c.list);
        const RunResult r = RunProgram({HostPath(), "check", "l.csv"}, dir.path());
        EXPECT_EQ(r.status, c.status) << c.list;
        EXPECT_TRUE(Has(r.out, c.message)) << c.list << ": " << r.out;
    }
}

// Poll lines: element runs, names from a list file (comments, blanks, CRLF),
// run from another directory with --dir. The 8-bit run holds a zero element
// and elements behind it, which the batch read must not lose.
TEST_F(HostTool, PollPrintsOneLinePerPollOfRunsAndListedNames) {
    StartAll({"Counter=42", "Speeds[1]=11", "Bytes[0]=5", "Bytes[1]=0", "Bytes[2]=7",
              "Small[4]=200", "Flags[3]=true", "Levels[1]=0.25", "Duration=61000", "Name=ABC",
              "Matrix[2,1]=true", "Shift=23:59", "Stamp=2024-03-15-13:45:30.25", "Period=1.5s",
              "Raw=0x0F"});
    dir.Write("names.txt",
              "# watched\r\n  Bytes[0..2]\r\n\r\nSmall[3..5]\n\tLevels[1]\nDuration\nName\n"
              "Matrix[2,0..2,1]\nShift\nStamp\nPeriod\nRaw\n");
    const RunResult r =
        RunProgram(Argv({"--dir", dir.path(), "poll", "Counter", "Speeds[1]", "Flags[2..3]",
                         "--file", dir.file("names.txt"), "--times", "2", "--interval", "1"}),
                   "/");
    EXPECT_EQ(r.status, 0) << r.err;
    const auto lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    const std::string values =
        " ms: Counter=42 Speeds[1]=11 Flags[2]=false Flags[3]=true Bytes[0]=5 Bytes[1]=0 "
        "Bytes[2]=7 "
        "Small[3]=0 Small[4]=200 Small[5]=0 Levels[1]=0.25 Duration=1m1s Name=\"ABC\" "
        "Matrix[2,0]=false Matrix[2,1]=true Shift=23:59:00 Stamp=2024-03-15-13:45:30.25 "
        "Period=1.5s Raw=0x0F";
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].rfind("poll " + std::to_string(i + 1) + " status 0 ", 0), 0u)
            << lines[i];
        ASSERT_GE(lines[i].size(), values.size()) << lines[i];
        EXPECT_EQ(lines[i].substr(lines[i].size() - values.size()), values);
    }
}

} // namespace
} // namespace plc::itest
