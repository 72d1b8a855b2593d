#include <gtest/gtest.h>

#include <boost/json/array.hpp>
#include <boost/json/value.hpp>
#include <cstdio>
#include <set>

#include "cli/command_line.h"
#include "cli/device_list.h"
#include "cli/request_flow.h"
#include "cli/tree_list.h"
#include "ipc/json.h"
#include "tests/cli/report_fixture.h"
#include "tests/cli/usage_text.h"
#include "tests/support/captured_run.h"
#include "tests/support/captured_stream.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/unix_listener.h"

namespace {

using Extent = FailingAllocations::Extent;

constexpr int kNothingFailed = 100;

// Ends with kNothingFailed for a command that is parsed without as many allocations.
Outcome parse(std::vector<std::string> words, uint64_t nth) {
    words.insert(words.begin(), "ctl");
    return runInChild([&] {
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const FailingAllocations failing(nth, Extent::FromThereOn);
        const ParsedCommand command = parseCommandLine(static_cast<int>(words.size()), argv.data());
        if (!failing.happened()) std::exit(kNothingFailed);
    });
}

TEST(OutOfMemoryCommandLine, TheActionsTextEndsWith12WithoutUsage) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"srv", "remove", "-i", "3"},
          {"srv", "disconnect", "-h", "box"},
          {"srv", "reconnect", "-i", "1"},
          {"dev", "plug", "3:7"},
          {"dev", "unplug", "-h", "box", "7"}}) {
        uint64_t nth = 1;
        for (Outcome outcome = parse(words, nth); outcome.status != kNothingFailed;
             outcome = parse(words, ++nth)) {
            EXPECT_EQ(outcome.out, "");
            EXPECT_EQ(outcome.err, "Error: cannot initialize object\n");
            EXPECT_EQ(outcome.status, 12);
        }
        EXPECT_GE(nth, 2U);
    }
}

TEST(OutOfMemoryCommandLine, WhatElseIsWrongIsToldFirst) {
    const std::string usage = usageText("ctl");
    const auto error = [](const std::vector<std::string>& words) {
        const Outcome outcome = parse(words, 1);
        EXPECT_EQ(outcome.status, 22);
        return outcome.err;
    };
    EXPECT_EQ(error({"srv", "remove"}), "Error: host Id is missing.\n" + usage);
    EXPECT_EQ(error({"dev", "plug"}), "Error: device Id is missing.\n" + usage);
    EXPECT_EQ(error({"dev", "plug", "x"}), usage);
    EXPECT_EQ(error({"dev", "plug", "7"}), "Error: server is not specified.\n");
    EXPECT_EQ(error({"dev", "unplug", "-h", "box", "3:7"}),
              "Error: server Id and host are specified. They are mutually exclusive.\n");
}

TEST(OutOfMemoryCommandLine, CommandsWithoutAnActionNeedNone) {
    for (const std::vector<std::string>& words : {std::vector<std::string>{"srv"},
                                                  {"dev"},
                                                  {"srv", "list", "-D"},
                                                  {"dev", "list", "-n"},
                                                  {"srv", "add", "box"}})
        EXPECT_EQ(parse(words, 1).status, kNothingFailed);
}

// The daemon hangs up at once, so that a run which gets as far as that ends too.
Outcome runWithFailure(uint64_t nth) {
    const UnixListener daemon;
    return runInChild([&] {
        ParsedCommand command;
        command.kind = CommandKind::DeviceAction;
        command.action = std::make_shared<const std::string>("plug");
        command.serverIdGiven = true;
        const FailingAllocations failing(nth, Extent::FromThereOn);
        runRequest(command, daemon.path());
    });
}

TEST(OutOfMemorySetUp, EndsWith12WithTheWordsOfTheStep) {
    const Outcome first = runWithFailure(1);
    EXPECT_EQ(first.out, "");
    EXPECT_EQ(first.err, "cannot initialize kqueue\n");
    EXPECT_EQ(first.status, 12);
    uint64_t nth = 2;
    Outcome outcome = runWithFailure(nth);
    while (outcome.err == "cannot initialize kqueue\n" && outcome.status == 12)
        outcome = runWithFailure(++nth);
    EXPECT_EQ(outcome.err, "cannot connect to the daemon\n");
    EXPECT_EQ(outcome.status, 12);
}

// So many that what they are read into grows several times.
std::string manyDevices(const std::string& serverId) {
    std::vector<std::string> devices;
    for (int i = 0; i < 50; ++i)
        devices.push_back(device({{"id", std::to_string(i * 37 % 50)},
                                  {"name", "\"" + std::to_string(i * 13 % 50) + "\""}}));
    return server(devices, {{"id", serverId}});
}

class OutOfMemoryReport : public testing::TestWithParam<Extent> {
protected:
    // All that the report prints when one allocation after the other fails, and when none does.
    template <typename Report>
    std::set<std::string> sweep(Report report) {
        std::set<std::string> printed;
        for (uint64_t nth = 1;; ++nth) {
            CapturedStream out(stdout);
            FailingAllocations failing(nth, GetParam());
            report(reply->as_array());
            failing.end();
            printed.insert(out.take());
            if (!failing.happened()) return printed;
        }
    }

    std::string servers = array({manyDevices("2"), manyDevices("1")});
    std::optional<boost::json::value> reply = readJson(servers, {});
};

TEST_P(OutOfMemoryReport, TheDeviceListIsPrintedWholeOrNotAtAll) {
    for (const bool byName : {false, true}) {
        const auto report = [=](const boost::json::array& array) {
            output_device_list(array, byName, true, false);
        };
        EXPECT_EQ(sweep(report), (std::set<std::string>{"", deviceList(servers, byName)}));
    }
}

TEST_P(OutOfMemoryReport, TheTreeLacksAllOrAServersDevices) {
    const std::string whole = treeList(servers);
    const size_t second = whole.find("2 - box");
    const std::string first = whole.substr(0, second);
    const std::string firstLine = whole.substr(0, whole.find('\n') + 1);
    const std::string secondLine = whole.substr(second, whole.find('\n', second) + 1 - second);
    const std::set<std::string> allowed = {"", firstLine + secondLine, first + secondLine,
                                           firstLine + whole.substr(second), whole};
    const std::set<std::string> printed =
        sweep([](const boost::json::array& array) { output_tree_list(array, false); });
    for (const std::string& text : printed)
        EXPECT_TRUE(allowed.contains(text)) << text;
    EXPECT_TRUE(printed.contains(""));
    EXPECT_TRUE(printed.contains(whole));
    EXPECT_GE(printed.size(), 3U);
}

INSTANTIATE_TEST_SUITE_P(, OutOfMemoryReport,
                         testing::Values(Extent::OnlyThatOne, Extent::FromThereOn),
                         [](const auto& extent) {
                             return extent.param == Extent::OnlyThatOne ? "OneFailure"
                                                                        : "AllFromThereOn";
                         });

}  // namespace
