// The four reports, to the byte.

#include <gtest/gtest.h>

#include "tests/e2e/control_path.h"
#include "tests/e2e/utility.h"
#include "tests/support/unix_stream.h"

namespace {

class Report : public ControlPathTest {
protected:
    // The report of a list reply with these servers.
    static Outcome of(const std::string& servers, const Words& words) {
        return runUtilityAgainst(frame(0, R"({"status":"ok","servers":[)" + servers + "]}"), words);
    }
};

// Out of order, with ids that would sort otherwise as text, and names of every alphabet.
const std::string kServers =
    R"({"id":10,"host":"spare.example","port":65536,"state":"disconnected","devices":[]},)"
    R"({"id":9,"host":"büro","port":33000,"state":"connected","devices":[)"
    R"({"id":10,"name":"mouse","vid":1133,"pid":49271,"rev":0,"port":"1-1","serial":"",)"
    R"("state":"plugged","addr":null},)"
    R"({"id":9,"name":"Mouse","vid":70000,"pid":1,"rev":65535,"port":"1-2.4","serial":"Ω-42",)"
    R"("state":"unplugged","addr":5}]},)"
    R"({"id":2,"host":"192.0.2.17","port":1,"state":"gone away","devices":[)"
    R"({"id":4294967295,"name":"Zip","vid":1,"pid":2,"rev":3,"port":"","serial":"S",)"
    R"("state":"Plugged","addr":"x"}]})";

TEST_F(Report, TreeHasServersAndTheirDevicesById) {
    const std::string tree =
        "2 - 192.0.2.17:1 - gone away\n"
        " 4294967295\t0001:0002:0003\t\tZip /Plugged, S/\n"
        "9 - büro:33000 - connected\n"
        " 9\t1170:0001:ffff\t1-2.4\tMouse /unplugged, Ω-42/\n"
        " 10\t046d:c077:0000\t1-1\tmouse /plugged/\n"
        "10 - spare.example:0 - disconnected\n";
    EXPECT_EQ(of(kServers, {"srv"}), printed(tree));
    EXPECT_EQ(of(kServers, {"srv", "list"}), printed(tree));
    EXPECT_EQ(of(kServers, {"srv", "list", "extra"}), printed(tree));
}

TEST_F(Report, TreeWithoutDevicesHasTheServersOnly) {
    EXPECT_EQ(of(kServers, {"srv", "list", "-D"}),
              printed("2 - 192.0.2.17:1 - gone away\n"
                      "9 - büro:33000 - connected\n"
                      "10 - spare.example:0 - disconnected\n"));
}

const std::string kZip = "2:4294967295 - 0001:0002:0003 - Zip, , S, Plugged\n";
const std::string kUpperMouse = "9:9 - 1170:0001:ffff - Mouse, 1-2.4, Ω-42, unplugged\n";
const std::string kLowerMouse = "9:10 - 046d:c077:0000 - mouse, 1-1, plugged\n";

TEST_F(Report, DevicesStandByServerAndDeviceId) {
    const std::string devices = kZip + kUpperMouse + kLowerMouse;
    EXPECT_EQ(of(kServers, {"dev"}), printed(devices));
    EXPECT_EQ(of(kServers, {"dev", "list"}), printed(devices));
}

TEST_F(Report, DevicesStandByNameInEitherDirection) {
    const Outcome ascending = printed(kUpperMouse + kZip + kLowerMouse);
    const Outcome descending = printed(kLowerMouse + kZip + kUpperMouse);
    EXPECT_EQ(of(kServers, {"dev", "list", "-n"}), ascending);
    EXPECT_EQ(of(kServers, {"dev", "list", "-N"}), descending);
    EXPECT_EQ(of(kServers, {"dev", "list", "-nN"}), descending);
    EXPECT_EQ(of(kServers, {"dev", "list", "-N", "-n"}), ascending);
}

TEST_F(Report, PluggedDevicesAreThoseWithExactlyThatState) {
    EXPECT_EQ(of(kServers, {"dev", "list", "-p"}), printed(kLowerMouse));
    EXPECT_EQ(of(kServers, {"dev", "list", "-N", "-p", "extra"}), printed(kLowerMouse));
}

TEST_F(Report, NoServersPrintNothing) {
    for (const Words& words : {Words{"srv"}, {"srv", "list", "-D"}, {"dev"}, {"dev", "list", "-p"}})
        EXPECT_EQ(of("", words), silentSuccess()) << testing::PrintToString(words);
}

std::string server(const std::string& members) {
    return R"({"id":1,"host":"a","port":1,"state":"s","devices":[]},{)" + members +
           R"(},{"id":3,"host":"c","port":3,"state":"s","devices":[]})";
}

TEST_F(Report, MalformedServerIsLeftOutOfTheTreeAndTheOthersPrint) {
    const Outcome others = printed("1 - a:1 - s\n3 - c:3 - s\n");
    for (const char* members : {R"("host":"b","port":2,"state":"s","devices":[])",
                                R"("id":"2","host":"b","port":2,"state":"s","devices":[])",
                                R"("id":2,"port":2,"state":"s","devices":[])",
                                R"("id":2,"host":null,"port":2,"state":"s","devices":[])",
                                R"("id":2,"host":"b","port":"2","state":"s","devices":[])",
                                R"("id":2,"host":"b","port":2,"state":0,"devices":[])",
                                R"("id":2,"host":"b","port":2,"state":"s")",
                                R"("id":2,"host":"b","port":2,"state":"s","devices":{})"}) {
        EXPECT_EQ(of(server(members), {"srv"}), others) << members;
        EXPECT_EQ(of(server(members), {"srv", "list", "-D"}), others) << members;
    }
}

TEST_F(Report, ElementsThatAreNoObjectsAreLeftOut) {
    const std::string servers =
        R"(null,7,"x",[],{"id":1,"host":"a","port":1,"state":"s","devices":[1,null,"x",[]]})";
    EXPECT_EQ(of(servers, {"srv"}), printed("1 - a:1 - s\n"));
    EXPECT_EQ(of(servers, {"dev"}), silentSuccess());
}

TEST_F(Report, MalformedDeviceIsLeftOutAndTheOthersPrint) {
    const std::string good =
        R"({"id":8,"name":"n","vid":1,"pid":2,"rev":3,"port":"p","serial":"","state":"s"})";
    for (const char* members :
         {R"("name":"n","vid":1,"pid":2,"rev":3,"port":"p","serial":"","state":"s")",
          R"("id":7,"name":0,"vid":1,"pid":2,"rev":3,"port":"p","serial":"","state":"s")",
          R"("id":7,"name":"n","vid":"1","pid":2,"rev":3,"port":"p","serial":"","state":"s")",
          R"("id":7,"name":"n","vid":1,"pid":null,"rev":3,"port":"p","serial":"","state":"s")",
          R"("id":7,"name":"n","vid":1,"pid":2,"port":"p","serial":"","state":"s")",
          R"("id":7,"name":"n","vid":1,"pid":2,"rev":3,"port":1,"serial":"","state":"s")",
          R"("id":7,"name":"n","vid":1,"pid":2,"rev":3,"port":"p","state":"s")",
          R"("id":7,"name":"n","vid":1,"pid":2,"rev":3,"port":"p","serial":"")"}) {
        const std::string servers = R"({"id":1,"host":"a","port":1,"state":"s","devices":[{)" +
                                    std::string(members) + "}," + good + "]}";
        EXPECT_EQ(of(servers, {"srv"}), printed("1 - a:1 - s\n 8\t0001:0002:0003\tp\tn /s/\n"))
            << members;
        EXPECT_EQ(of(servers, {"dev"}), printed("1:8 - 0001:0002:0003 - n, p, s\n")) << members;
    }
}

TEST_F(Report, DeviceListNeedsOfAServerOnlyItsIdAndDevices) {
    const std::string devices =
        R"("devices":[{"id":8,"name":"n","vid":true,"pid":2.9,"rev":3,"port":"p","serial":"S",)"
        R"("state":"s"}])";
    const std::string servers =
        "{" + devices + R"(},{"id":5},{"id":6,"devices":7},{"id":1,)" + devices + "}";
    EXPECT_EQ(of(servers, {"dev"}), printed("1:8 - 0001:0002:0003 - n, p, S, s\n"));
}

}  // namespace
