// plc-host against plc-sim. The tool drives the driver as the panel runtime
// does, so what it writes must land in the controller's variables, what it
// prints must be what the controller holds, and its refusals and exit statuses
// must tell a script what went wrong, before any traffic when it can.
#include "tests/integration/fixture.h"

namespace plc::itest {
namespace {

class HostTool : public DriverFixture {
protected:
    // The tool's command line against 127.0.0.1; the driver's own diagnostics
    // are dropped unless `quiet` is false.
    static std::vector<std::string> Argv(const std::vector<std::string> &args, bool quiet = true) {
        std::vector<std::string> argv = {HostPath(), "--controller", "127.0.0.1", "--lib", DriverLibraryPath()};
        if (quiet) argv.push_back("--quiet");
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }
    RunResult Tool(const std::vector<std::string> &args, bool quiet = true) {
        return RunProgram(Argv(args, quiet), dir.path());
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

// Every value layout the tool encodes and decodes by itself: the controller
// must hold what was written, and a read must print it back by its type.
TEST_F(HostTool, WritesAndReadsBackEveryKindOfValue) {
    StartSim();
    struct Case {
        std::vector<std::string> write;  // NAME VALUE...
        std::string read;                // what is read back
        const char *stored_name;
        size_t index;                    // element position in the store line
        const char *stored;
        const char *printed;
    };
    const std::vector<Case> cases = {
        {{"Temperature", "-21.25"}, "Temperature", "Temperature", 0, "-21.25", "Temperature = -21.25\n"},
        {{"Gauge[1..2]", "0.1", "3e38"}, "Gauge[1..2]", "Gauge", 2, "3e+38",
         "Gauge[1] = 0.1\nGauge[2] = 3e+38\n"},
        // Both words differ and the high one carries the sign.
        {{"Total", "-81985529216486896"}, "Total", "Total", 0, "-81985529216486896",
         "Total = -81985529216486896\n"},
        {{"Big", "0xFEDCBA9876543210"}, "Big", "Big", 0, "18364758544493064720", "Big = 18364758544493064720\n"},
        {{"Masks[3]", "0x8000000000000001"}, "Masks[3]", "Masks", 3, "9223372036854775809",
         "Masks[3] = 9223372036854775809\n"},
        {{"Levels[5]", "-2.75"}, "Levels[5]", "Levels", 4, "-2.75", "Levels[5] = -2.75\n"},
        {{"Label", "Hello world"}, "Label", "Label", 0, "Hello world", "Label = \"Hello world\"\n"},
        // A shorter text leaves nothing of the longer one behind it.
        {{"Label", "Hi"}, "Label", "Label", 0, "Hi", "Label = \"Hi\"\n"},
        {{"Name", "ABCDEFGH"}, "Name", "Name", 0, "ABCDEFGH", "Name = \"ABCDEFGH\"\n"},
        {{"Running", "true"}, "Running", "Running", 0, "true", "Running = true\n"},
        {{"Alarm", "on"}, "Alarm", "Alarm", 0, "true", "Alarm = true\n"},
        {{"Flags[2..4]", "1", "0", "1"}, "Flags[2..4]", "Flags", 4, "true",
         "Flags[2] = true\nFlags[3] = false\nFlags[4] = true\n"},
        {{"Duration", "3723004.5"}, "Duration", "Duration", 0, "3723004500000ns", "Duration = 1h2m3s4.500ms\n"},
        {{"Speeds[3..4]", "300", "-2"}, "Speeds[3..4]", "Speeds", 4, "-2", "Speeds[3] = 300\nSpeeds[4] = -2\n"},
        {{"Ranks[10]", "-7"}, "Ranks[10]", "Ranks", 9, "-7", "Ranks[10] = -7\n"},
        {{"Grid[2,2]", "77"}, "Grid[2,2]", "Grid", 7, "77", "Grid[2,2] = 77\n"},
        {{"Cube[1,2,3]", "-99"}, "Cube[23]", "Cube", 23, "-99", "Cube[1,2,3] = -99\n"},
        {{"Bytes[1..2]", "-1", "0x7F"}, "Bytes[1..2]", "Bytes", 1, "-1", "Bytes[1] = -1\nBytes[2] = 127\n"},
        {{"Code", "4000000000"}, "Code", "Code", 0, "4000000000", "Code = 4000000000\n"},
        {{"Station,1,Speed", "-300"}, "Station,1,Speed", "Station,1,Speed", 0, "-300", "Station,1,Speed = -300\n"},
        {{"Group2[3]", "-5"}, "Group2[3]", "Group2", 3, "-5", "Group2[3] = -5\n"},
        {{"Far0", "0.5"}, "Far0", "Far0", 0, "0.5", "Far0 = 0.5\n"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = {"write"};
        args.insert(args.end(), c.write.begin(), c.write.end());
        const RunResult w = Tool(args);
        EXPECT_EQ(w.status, 0) << Join(args) << ": " << w.err;
        EXPECT_EQ(Stored(c.stored_name, c.index), c.stored) << Join(args);
        // The driver's own diagnostics go to standard error, never into the values.
        const RunResult r = Tool({"read", c.read}, /*quiet=*/false);
        EXPECT_EQ(r.status, 0) << c.read << ": " << r.err;
        EXPECT_EQ(r.out, c.printed) << c.read;
        EXPECT_NE(r.err.find("[PLC] init ok"), std::string::npos) << c.read << ": " << r.err;
    }
}

TEST_F(HostTool, JsonOutputCarriesNamesTypesAndValues) {
    StartSim({"Speeds[3]=300", "Speeds[4]=-2", "Label=say \"hi\" \\", "Total=0x1122334455667788",
              "Duration=1.5", "Temperature=0.1", "Cube[1,2,3]=-99", "Grid[2,4]=55"});
    RunResult r = Tool({"--json", "read", "Speeds[3..4]"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"status\":0,\"values\":[{\"name\":\"Speeds[3]\",\"type\":\"INT\",\"value\":300},"
                     "{\"name\":\"Speeds[4]\",\"type\":\"INT\",\"value\":-2}]}\n");
    r = Tool({"--json", "read", "Label"});
    EXPECT_EQ(r.out, "{\"status\":0,\"values\":[{\"name\":\"Label\",\"type\":\"STRING\","
                     "\"value\":\"say \\\"hi\\\" \\\\\"}]}\n");
    r = Tool({"--json", "write", "Counter", "7"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"status\":0,\"written\":[{\"name\":\"Counter\",\"status\":0}]}\n");
    EXPECT_EQ(Stored("Counter", 0), "7");

    // 104 records: the poll takes two batch calls, one object per poll.
    r = Tool({"--json", "poll", "Total", "Duration", "Temperature", "Cube", "Label", "Levels", "Masks",
              "Speeds", "Ranks", "Grid", "--times", "2", "--interval", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string &l = lines[i];
        EXPECT_EQ(l.rfind("{\"poll\":" + std::to_string(i + 1) + ",\"status\":0,\"duration_ms\":", 0), 0u) << l;
        for (const char *part : {"\"calls\":2,",
                                 "{\"name\":\"Total\",\"type\":\"LINT\",\"value\":1234605616436508552}",
                                 "{\"name\":\"Duration\",\"type\":\"TIME\",\"value\":\"1.500ms\"}",
                                 "{\"name\":\"Temperature\",\"type\":\"REAL\",\"value\":0.1}",
                                 "{\"name\":\"Cube[1,2,3]\",\"type\":\"DINT\",\"value\":-99}",
                                 "{\"name\":\"Label\",\"type\":\"STRING\",\"value\":\"say \\\"hi\\\" \\\\\"}",
                                 "{\"name\":\"Grid[2,4]\",\"type\":\"INT\",\"value\":55}]}"})
            EXPECT_NE(l.find(part), std::string::npos) << part << " in " << l;
    }

    // A refusal is an object too, with the exit status.
    r = Tool({"--json", "read", "Nope"});
    EXPECT_EQ(r.status, 65);
    EXPECT_EQ(r.out, "{\"status\":65,\"error\":\"unknown variable 'Nope' (not in PLC7F000001_1.csv)\"}\n");
}

TEST_F(HostTool, RefusesUnknownNamesAndIndexesWithoutTraffic) {
    StartSim({"Matrix[2,1]=true"});
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
        {{"read", "Speeds[10]"}, "index outside the bounds Speeds[0..9]"},
        {{"read", "Ranks[0]"}, "index outside the bounds Ranks[1..10]"},
        {{"write", "Grid[3,0]", "1"}, "index outside the bounds Grid[1..2,0..4]"},
        {{"read", "Grid[1,2,0]"}, "Grid has 2 dimension(s)"},
        {{"read", "Cube[24]"}, "linear position 24 outside 0..23"},
        {{"read", "Speeds[8]", "3"}, "3 element(s) from Speeds[8] run past the end of Speeds[0..9]"},
        {{"write", "Speeds[9]", "1", "2"}, "2 value(s) from Speeds[9] run past the end of Speeds[0..9]"},
        {{"read", "Counter[0]"}, "'Counter' is not an array"},
        {{"read", "Label[2]"}, "'Label' is not an array"},
        {{"poll", "Counter", "Speeds[1..10]", "--times", "1"}, "index outside the bounds Speeds[0..9]"},
        {{"poll", "--file", "names.txt", "--times", "1"}, "unknown variable 'Nope'"},
        // The driver would resolve it as "Matrix[9]", which the controller refuses.
        {{"write", "Matrix[2,1]", "false"}, "cannot write elements of a multi-dimensional BOOL array", 3},
    };
    for (const Case &c : cases) {
        const RunResult r = Tool(c.args);
        EXPECT_EQ(r.status, c.status) << Join(c.args);
        EXPECT_EQ(r.out, "") << Join(c.args);
        EXPECT_NE(r.err.find(c.message), std::string::npos) << Join(c.args) << ": " << r.err;
    }
    EXPECT_EQ(sim.Stats(), before) << "a refused request reached the controller";
}

// Nothing listens on the controller port: every command says so and exits as a
// communication failure, which a script can retry, unlike a configuration error.
TEST_F(HostTool, UnreachableControllerIsACommunicationFailure) {
    dir.Write(kTagListName, ReadWholeFile(TestTagListPath()));
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"read", "Counter"}, {"write", "Counter", "1"}, {"read", "Duration"}}) {
        const RunResult r = Tool(args);
        EXPECT_EQ(r.status, 2) << Join(args);
        EXPECT_EQ(r.out, "") << Join(args);
        EXPECT_NE(r.err.find("no connection to the controller at 127.0.0.1"), std::string::npos)
            << Join(args) << ": " << r.err;
    }
    RunResult r = Tool({"--json", "read", "Counter"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.rfind("{\"status\":2,\"error\":\"no connection to the controller", 0), 0u) << r.out;

    r = Tool({"poll", "Counter", "Speeds[1]", "--times", "2", "--interval", "1"});
    EXPECT_EQ(r.status, 2);
    const auto lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].rfind("poll " + std::to_string(i + 1) + " status 2 ", 0), 0u) << lines[i];
        EXPECT_NE(lines[i].find(": Counter=? Speeds[1]=?"), std::string::npos) << lines[i];
    }

    // A missing tag list is the configuration error, told apart from the above.
    r = Tool({"--device", "2", "read", "Counter"});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("PLC7F000001_2.csv"), std::string::npos) << r.err;
}

// Poll lines: element runs, names from a list file (comments, blanks, CRLF),
// run from another directory with --dir. The 8-bit run holds a zero element
// and elements behind it, which the batch read must not lose.
TEST_F(HostTool, PollPrintsOneLinePerPollOfRunsAndListedNames) {
    StartSim({"Counter=42", "Speeds[1]=11", "Speeds[2]=-12", "Speeds[3]=13", "Bytes[0]=5", "Bytes[1]=0",
              "Bytes[2]=7", "Bytes[3]=9", "Small[4]=200", "Flags[3]=true", "Total=-81985529216486896",
              "Levels[1]=0.25", "Duration=61000", "Name=ABC", "Matrix[2,1]=true"});
    dir.Write("names.txt", "# watched\r\n  Bytes[0..3]\r\n\r\nSmall[3..5]\nTotal\n\tLevels[1]\nDuration\nName\nMatrix[2,0..2,1]\n");
    const RunResult r = RunProgram(Argv({"--dir", dir.path(), "poll", "Counter", "Speeds[1..3]", "Flags[2..3]",
                                         "--file", dir.file("names.txt"), "--times", "2", "--interval", "1"}),
                                   "/");
    EXPECT_EQ(r.status, 0) << r.err;
    const auto lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string &l = lines[i];
        EXPECT_EQ(l.rfind("poll " + std::to_string(i + 1) + " status 0 ", 0), 0u) << l;
        const std::string values =
            " ms: Counter=42 Speeds[1]=11 Speeds[2]=-12 Speeds[3]=13 Flags[2]=false Flags[3]=true "
            "Bytes[0]=5 Bytes[1]=0 Bytes[2]=7 Bytes[3]=9 Small[3]=0 Small[4]=200 Small[5]=0 "
            "Total=-81985529216486896 Levels[1]=0.25 Duration=1m1s Name=\"ABC\" Matrix[2,0]=false "
            "Matrix[2,1]=true";
        ASSERT_GE(l.size(), values.size()) << l;
        EXPECT_EQ(l.substr(l.size() - values.size()), values);
    }
}

} // namespace
} // namespace plc::itest
