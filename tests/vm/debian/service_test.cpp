#include <string>

#include "tests/vm/debian/debian_fixture.h"

namespace corvane::vm {
namespace {

class SystemdService : public DebianTest {};

TEST_F(SystemdService, ComesBackAfterTheRequestThatEndsTheAgent) {
    const std::string pid = agentPid();
    HostClient host = synchronisedHost();
    host.send("{\"execute\":5}\n");
    const std::string log = awaitLog("corvane.service: Main process exited");
    EXPECT_NE(log.find("code=exited, status=1/FAILURE"), std::string::npos) << log;
    host.synchronise();
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
    EXPECT_NE(agentPid(), pid);
    EXPECT_EQ(property("corvane.service", "SubState"), "running");
}

TEST_F(SystemdService, ComesBackHoweverOftenTheAgentEnds) {
    HostClient host = synchronisedHost();
    for (int round = 0; round < 7; ++round) {  // more than systemd allows in ten seconds by itself
        const std::size_t before = machine().log().end();
        host.send("{\"execute\":5}\n");
        // What is sent before the agent has gone goes with it.
        machine().log().await("corvane.service: Main process exited", before);
        host.synchronise();
    }
    EXPECT_EQ(property("corvane.service", "SubState"), "running");
}

TEST_F(SystemdService, AProgramOfTheHostOutlivesARestartOfTheAgent) {
    HostClient host = synchronisedHost();
    const pid_t program = ExecClient(host).start({{"path", "/bin/sleep"}, {"arg", {"100000"}}});
    const std::string directory = "/proc/" + std::to_string(program);
    shell().check("systemctl restart corvane.service");
    host.synchronise();
    EXPECT_EQ(shell().check("cat " + directory + "/comm"), "sleep");
    shell().check("systemctl stop corvane.service");
    EXPECT_EQ(shell().check("cat " + directory + "/comm"), "sleep");
    shell().check("kill " + std::to_string(program) + "; systemctl start corvane.service");
    host.synchronise();
    EXPECT_EQ(answerTo(host, "guest-ping"), emptyReturn);
}

TEST_F(SystemdService, ProgramsGetWhatALoginGivesAndNothingThatIsForTheAgentAlone) {
    HostClient host = synchronisedHost();
    EXPECT_EQ(ExecClient(host).outputOf("env | sort"),
              "HOME=/root\nLANG=C.UTF-8\nLOGNAME=root\nPATH=/usr/local/sbin:/usr/local/bin:"
              "/usr/sbin:/usr/bin:/sbin:/bin\nPWD=/\nSHELL=/bin/bash\nUSER=root");
}

TEST_F(SystemdService, StopsWithoutDelay) {
    shell().check("systemctl stop corvane.service");
    // What takes longer than its time is ended by force, which this tells.
    EXPECT_EQ(property("corvane.service", "Result"), "success");
    shell().check("systemctl start corvane.service");
    synchronisedHost();
}

}  // namespace
}  // namespace corvane::vm
