// SPDX-License-Identifier: MIT
// A worker and a listener as services: what the service manager and the journal are told, and the rotation of logs.
#include <sys/un.h>

#include "kvr_program.h"
#include "support/peer.h"

namespace kvr::test {

/// The socket of a service manager, "@..." for one that is no file.
static UniqueFd manager_at(const std::string& name) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    address.sun_path[0] = name[0] == '@' ? '\0' : name[0];
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    return fd;
}

/// The next datagram; hangs here if there is none.
static std::string told(const UniqueFd& manager) {
    char text[1000];
    return {text, static_cast<std::size_t>(::recv(manager.get(), text, sizeof text, 0))};
}

class KvrService : public ProgramTest {
  protected:
    /// What the journal has got: standard error of a command.
    [[nodiscard]] std::string journal_of(const std::string& command) const {
        const char* const as_journal = "exec 2>journal; export JOURNAL_STREAM=$(stat -c %d:%i journal); exec $KVR ";
        EXPECT_GT(start(as_journal + command).result(), 0);
        return text("journal");
    }
};

TEST_F(KvrService, TheServiceManagerIsToldWhenItIsReadyAndItsState) {
    const std::string name = "@" + path().native();
    const UniqueFd of_listener = manager_at(name);
    const Child listener =
        start("NOTIFY_SOCKET=" + name + " exec $KVR listen --address 127.0.0.1 --port 0 --port-file port");
    const std::string listens = told(of_listener);
    const std::string port = text("port").substr(0, text("port").size() - 1);
    EXPECT_EQ(listens, "READY=1\nSTATUS=listens on 127.0.0.1 port " + port + ", plain");

    done("define channel C XMITQ=Q CONNAME='127.0.0.1(" + port + ")'");
    const UniqueFd of_worker = manager_at(path() / "socket");
    const std::string command = "NOTIFY_SOCKET=$PWD/socket exec $KVR run EAST:C";
    Child worker = start(command);
    for (const std::string& next : {std::string("READY=1"), "STATUS=RETRYING, tries 127.0.0.1(" + port + ")",
                                    std::string("STATUS=BINDING"), "STATUS=RUNING, sends to 127.0.0.1:" + port}) {
        EXPECT_EQ(told(of_worker), next);
    }
    EXPECT_EQ(start(command).result(), 6) << "a second one, never ready";
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(told(of_worker), "STATUS=STOPED");
}

TEST_F(KvrService, LinesOfTheJournalBeginWithTheirPriority) {
    EXPECT_THAT(journal_of("run"), ::testing::StartsWith("<3>kvr: "));
    done("define channel C XMITQ=Q CONNAME='127.0.0.1(1)' SHORTRTY=0 LONGRTY=0"); // nobody listens there
    EXPECT_THAT(journal_of("run C --log -"), AllOf(ContainsRegex("\n<5>[^ ]+ 3 EAST .*starting"),
                                                   ContainsRegex("\n<3>[^ ]+ 1 EAST .*Connection refused")));
    EXPECT_THAT(journal_of("run C"), ContainsRegex("\n<3>kvr: channel 'C' could not"));
}

TEST_F(KvrService, ALogIsRotatedAsInstalled) {
    done("define channel C XMITQ=Q CONNAME='127.0.0.1(1)' SHORTRTY=0 LONGTMR=1"); // a line each second
    const Child worker = start("exec $KVR run C");
    const std::string log = path() / "EAST/log/C.log";
    ASSERT_TRUE(wait_until([&] { return contents(log).find("Connection refused") != std::string::npos; }));
    // Its folders and user are those of the test, and it finds this in the service manager's place.
    file("systemctl", "#!/bin/sh\ncase \"$*\" in kill*main*HUP*'kvr-channel@*.service'*) exec kill -HUP " +
                          std::to_string(worker.pid()) + ";; esac\n");
    const std::string rotate = "chmod 700 systemctl; umask 077; PATH=$PWD:/usr/sbin:$PATH; "
                               "sed \"s,/var/l[a-z]*/kvr,$PWD,g; s,su kvr kvr,su $(id -un) $(id -gn),\" " KVR_LOGROTATE
                               " >rules; exec logrotate --force --state state rules";
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(start(rotate).result(), 0) << text("background.err");
        EXPECT_TRUE(wait_until([&] { return contents(log).find("log reopened") != std::string::npos; }));
    }
    EXPECT_THAT(names_in(path() / "EAST/log"), ::testing::ElementsAre("C.log", "C.log.1", "C.log.2.gz"));
}

} // namespace kvr::test
