// Command lines that end before the daemon is reached: nothing listens here, and none of these
// runs gets as far as finding that out.

#include <gtest/gtest.h>

#include "tests/e2e/utility.h"

namespace {

// Each of the command lines is told message, followed by the usage text.
void expectUsageAfter(const std::string& message, const std::vector<Words>& commandLines) {
    for (const Words& words : commandLines)
        EXPECT_EQ(runUtility(words), failedWith(22, message + usageText()))
            << testing::PrintToString(words);
}

// The same with a line by the option parser, whose wording is the system's.
void expectParserComplaint(const std::string& secondWord, const Words& words) {
    const Outcome outcome = runUtility(words);
    const std::string usage = usageText();
    EXPECT_EQ(outcome.status, 22);
    EXPECT_EQ(outcome.out, "");
    ASSERT_TRUE(outcome.err.ends_with(usage)) << outcome.err;
    const std::string complaint = outcome.err.substr(0, outcome.err.size() - usage.size());
    EXPECT_TRUE(complaint.starts_with(secondWord + ": ")) << complaint;
    EXPECT_EQ(complaint.find('\n'), complaint.size() - 1) << complaint;
}

TEST(UtilityCommandLine, HelpAsTheFirstWordIsPrintedWhateverFollows) {
    EXPECT_EQ(runUtility({"-h"}), printed(usageText()));
    EXPECT_EQ(runUtility({"--help"}), printed(usageText()));
    EXPECT_EQ(runUtility({"-h", "extra", "words"}), printed(usageText()));
}

TEST(UtilityCommandLine, NoArgumentsAreTold) {
    expectUsageAfter("Error: arguments must be specified.\n", {{}});
}

TEST(UtilityCommandLine, UnknownWordsAreInvalid) {
    expectUsageAfter("Error: Invalid argument.\n", {{"SRV"},
                                                    {""},
                                                    {"--version"},
                                                    {"srv", "-h"},
                                                    {"srv", "--help"},
                                                    {"srv", "plug"},
                                                    {"srv", "List"},
                                                    {"srv", ""},
                                                    {"dev", "add"},
                                                    {"dev", "-1"}});
}

TEST(UtilityCommandLine, OptionOfAnotherFormIsRefusedByTheParser) {
    expectParserComplaint("list", {"srv", "list", "-p"});
    expectParserComplaint("add", {"srv", "add", "-h", "host"});
    expectParserComplaint("unplug", {"dev", "unplug", "-1", "3:7"});
    expectParserComplaint("list", {"dev", "list", "-D"});
    expectParserComplaint("remove", {"srv", "remove", "-1", "-i", "3"});
}

TEST(UtilityCommandLine, OptionWithoutItsArgumentIsRefusedByTheParser) {
    expectParserComplaint("add", {"srv", "add", "-p"});
    expectParserComplaint("remove", {"srv", "remove", "-h"});
    expectParserComplaint("plug", {"dev", "plug", "-i"});
}

TEST(UtilityCommandLine, ServerIdThatIsNoNumberPrintsUsageAlone) {
    expectUsageAfter("", {{"srv", "remove", "-i", ""},
                          {"srv", "remove", "-i", "12a"},
                          {"srv", "disconnect", "-i", "x"},
                          {"dev", "plug", "-i", "1 ", "7"}});
}

TEST(UtilityCommandLine, AddWithoutAHostIsTold) {
    expectUsageAfter("Error: host is missing.\n", {{"srv", "add"}, {"srv", "add", "-p", "5"}});
}

TEST(UtilityCommandLine, ServerActionWithoutAServerIsTold) {
    expectUsageAfter("Error: host Id is missing.\n", {{"srv", "remove"},
                                                      {"srv", "remove", "3"},
                                                      {"srv", "disconnect", "-p", "5"},
                                                      {"srv", "reconnect", "--", "-i", "3"}});
}

TEST(UtilityCommandLine, DeviceActionWithoutADeviceIsTold) {
    expectUsageAfter(
        "Error: device Id is missing.\n",
        {{"dev", "plug"}, {"dev", "unplug"}, {"dev", "plug", "-i", "3"}, {"dev", "plug", "-1"}});
}

TEST(UtilityCommandLine, MalformedDeviceIdPrintsUsageAlone) {
    std::vector<Words> commandLines;
    for (const char* id : {"3:", ":7", "3:7x", "7x", "0x7", " 3:7", "", "+3:7", "3:-7", "3:+7",
                           "3: 7", "3:7:1", "3;7"})
        commandLines.push_back({"dev", "plug", id});
    expectUsageAfter("", commandLines);
}

TEST(UtilityCommandLine, BareDeviceIdNeedsAServer) {
    EXPECT_EQ(runUtility({"dev", "plug", "7"}),
              failedWith(22, "Error: server is not specified.\n"));
    EXPECT_EQ(runUtility({"dev", "unplug", "7", "-i", "3"}),
              failedWith(22, "Error: server is not specified.\n"));
}

TEST(UtilityCommandLine, HostAndServerIdOfADeviceExcludeEachOther) {
    const std::string message =
        "Error: server Id and host are specified. They are mutually exclusive.\n";
    EXPECT_EQ(runUtility({"dev", "plug", "-h", "box", "3:7"}), failedWith(22, message));
    EXPECT_EQ(runUtility({"dev", "plug", "-h", "", "3:7"}), failedWith(22, message));
    EXPECT_EQ(runUtility({"dev", "unplug", "-h", "box", "-i", "1", "7"}), failedWith(22, message));
}

}  // namespace
