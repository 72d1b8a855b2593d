// How each reply ends each command.

#include <gtest/gtest.h>

#include "tests/e2e/control_path.h"
#include "tests/e2e/utility.h"
#include "tests/support/unix_stream.h"

namespace {

const Outcome kInternalError = failedWith(5, "Internal error.\n");

// One reply of the command's own code, and the end.
struct Answer {
    const char* reply;
    Outcome end;
};

class OutcomeTest : public ControlPathTest {
protected:
    static void expectEnds(const Words& words, int32_t command,
                           const std::vector<Answer>& answers) {
        for (const Answer& answer : answers)
            EXPECT_EQ(runUtilityAgainst(frame(command, answer.reply), words), answer.end)
                << testing::PrintToString(words) << ' ' << answer.reply;
    }
};

// Wrong for every command.
const std::vector<Answer> kWithoutAStatus{
    {"{}", kInternalError},
    {R"({"status":null})", kInternalError},
    {R"({"status":1})", kInternalError},
    {R"({"status":true})", kInternalError},
    {R"({"status":["ok"]})", kInternalError},
    {R"({"status":{"status":"ok"}})", kInternalError},
    {R"({"status":""})", kInternalError},
    {R"({"status":"error"})", kInternalError},
    {R"({"status":"OK"})", kInternalError},
    {R"({"status":"ok "})", kInternalError},
    {R"({"status":"ok\u0000"})", kInternalError},
    {R"({"Status":"ok"})", kInternalError},
};

const std::vector<Words> kLists{{"srv"}, {"srv", "list", "-D"}, {"dev"}, {"dev", "list", "-n"}};
const std::vector<Words> kServerActions{{"srv", "remove", "-i", "3"},
                                        {"srv", "disconnect", "-h", "box"},
                                        {"srv", "reconnect", "-i", "3"}};
const std::vector<Words> kDeviceActions{
    {"dev", "plug", "3:7"}, {"dev", "plug", "-h", "box", "7"}, {"dev", "unplug", "3:7"}};

TEST_F(OutcomeTest, ReplyWithoutAKnownStatusIsAnInternalError) {
    expectEnds({"srv"}, 0, kWithoutAStatus);
    expectEnds({"dev"}, 0, kWithoutAStatus);
    expectEnds({"srv", "add", "box"}, 1, kWithoutAStatus);
    expectEnds({"srv", "remove", "-i", "3"}, 2, kWithoutAStatus);
    expectEnds({"dev", "plug", "3:7"}, 3, kWithoutAStatus);
}

TEST_F(OutcomeTest, ListNeedsOkAndAnArray) {
    for (const Words& words : kLists)
        expectEnds(words, 0,
                   {{R"({"status":"ok","servers":[]})", silentSuccess()},
                    {R"({"servers":[],"status":"ok","more":1})", silentSuccess()},
                    {R"({"status":"ok"})", kInternalError},
                    {R"({"status":"ok","servers":null})", kInternalError},
                    {R"({"status":"ok","servers":{}})", kInternalError},
                    {R"({"status":"ok","servers":"[]"})", kInternalError},
                    {R"({"status":"already","servers":[]})", kInternalError},
                    {R"({"status":"notfound","servers":[]})", kInternalError}});
}

TEST_F(OutcomeTest, AddPrintsTheIdItIsGiven) {
    expectEnds(
        {"srv", "add", "box"}, 1,
        {{R"({"status":"ok","id":7})", printed("The server is added with Id: 7.\n")},
         {R"({"id":0,"status":"ok"})", printed("The server is added with Id: 0.\n")},
         {R"({"status":"ok","id":4294967295})",
          printed("The server is added with Id: 4294967295.\n")},
         {R"({"status":"ok","id":4294967298})", printed("The server is added with Id: 2.\n")},
         {R"({"status":"ok","id":-1})", printed("The server is added with Id: 4294967295.\n")},
         {R"({"status":"ok","id":7.9})", printed("The server is added with Id: 7.\n")},
         {R"({"status":"ok","id":true})", printed("The server is added with Id: 1.\n")}});
}

TEST_F(OutcomeTest, AddThatWasDoneBeforeExits37) {
    const Outcome already = failedWith(37, "The server has been already added.\n");
    expectEnds({"srv", "add", "box"}, 1,
               {{R"({"status":"already"})", already}, {R"({"status":"already","id":7})", already}});
}

TEST_F(OutcomeTest, AddWithoutAGoodIdIsAnInternalError) {
    expectEnds({"srv", "add", "box"}, 1,
               {{R"({"status":"ok"})", kInternalError},
                {R"({"status":"ok","id":"7"})", kInternalError},
                {R"({"status":"ok","id":null})", kInternalError},
                {R"({"status":"ok","id":[]})", kInternalError},
                {R"({"status":"already","id":"7"})", kInternalError},
                {R"({"status":"already","id":null})", kInternalError},
                {R"({"status":"notfound"})", kInternalError},
                {R"({"status":"notfound","id":7})", kInternalError}});
}

TEST_F(OutcomeTest, ServerActionEndsByItsStatus) {
    for (const Words& words : kServerActions)
        expectEnds(words, 2,
                   {{R"({"status":"ok"})", silentSuccess()},
                    {R"({"status":"notfound"})", failedWith(2, "The server has not been found.\n")},
                    {R"({"status":"already"})", kInternalError}});
}

TEST_F(OutcomeTest, DeviceActionEndsByItsStatus) {
    for (const Words& words : kDeviceActions) {
        const std::string done = words[1] + "ged";
        expectEnds(words, 3,
                   {{R"({"status":"ok"})", silentSuccess()},
                    {R"({"status":"notfound"})", failedWith(2, "The device has not been found.\n")},
                    {R"({"status":"already"})",
                     failedWith(37, "The device has been already " + done + ".\n")}});
    }
}

}  // namespace
