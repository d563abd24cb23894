#include "platform/linux/virtio_port.h"

#include <array>
#include <cerrno>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/port_model.h"

namespace corvane {
namespace {

class VirtioPortTest : public testing::Test {
 protected:
    ssize_t receive() { return port_.receive(buffer_); }

    std::string receiveText() {
        const ssize_t count = receive();
        return count < 0 ? "error" : std::string(buffer_.data(), static_cast<std::size_t>(count));
    }

    PortModel model_;
    VirtioPort port_{model_};
    std::array<char, 8192> buffer_{};
};

TEST_F(VirtioPortTest, APortThatNoHostHasOpenedIsWaitedOn) {
    EXPECT_THROW(receive(), WaitsForEver);
    EXPECT_EQ(model_.reads, 1);
}

TEST_F(VirtioPortTest, WhatAHostSendsIsReceived) {
    model_.then([](PortModel& model) { model.connect(); });
    model_.then([](PortModel& model) { model.sendToGuest("ping\n"); });
    EXPECT_EQ(receiveText(), "ping\n");
    EXPECT_FALSE(port_.inputHasEnded());
}

TEST_F(VirtioPortTest, WakeUpsForNothingCostOneReadEach) {
    for (int wakeUp = 0; wakeUp < 5; ++wakeUp) {
        model_.then([](PortModel& model) { ++model.changes; });
    }
    EXPECT_THROW(receive(), WaitsForEver);
    EXPECT_EQ(model_.reads, 6);
}

TEST_F(VirtioPortTest, AHostThatLeavesWithoutAWordEndsTheInputOnce) {
    model_.then([](PortModel& model) { model.connect(); });
    model_.then([](PortModel& model) { model.leave(); });
    EXPECT_EQ(receive(), 0);
    EXPECT_TRUE(port_.inputHasEnded());
    EXPECT_THROW(receive(), WaitsForEver);
    EXPECT_FALSE(port_.inputHasEnded());
}

TEST_F(VirtioPortTest, AHostThatIsOnlyNoticedByItsBytesIsAnsweredAndItsLeavingTold) {
    model_.then([](PortModel& model) {
        model.connect();
        model.sendToGuest("ping\n");
        model.leave();
    });
    EXPECT_EQ(receiveText(), "ping\n");
    EXPECT_EQ(receive(), 0);
    EXPECT_TRUE(port_.inputHasEnded());
    EXPECT_THROW(receive(), WaitsForEver);
}

TEST_F(VirtioPortTest, WhatWasSentBeforeLeavingIsReceivedBeforeTheEnd) {
    model_.connect();
    model_.sendToGuest(std::string(5000, 'x'));
    model_.leave();
    EXPECT_EQ(receive(), 4096);
    EXPECT_EQ(receive(), 904);
    EXPECT_EQ(receive(), 0);
}

TEST_F(VirtioPortTest, WhatWaitedForTheAgentsStartIsReceived) {
    model_.inbound = "ping\n";
    EXPECT_EQ(receiveText(), "ping\n");
    EXPECT_EQ(receive(), 0);
}

TEST_F(VirtioPortTest, TheNextHostIsServedAfterAnEnd) {
    model_.connect();
    model_.then([](PortModel& model) { model.leave(); });
    EXPECT_EQ(receive(), 0);
    model_.then([](PortModel& model) { model.connect(); });
    model_.then([](PortModel& model) { model.sendToGuest("again\n"); });
    EXPECT_EQ(receiveText(), "again\n");
    model_.then([](PortModel& model) { model.leave(); });
    EXPECT_EQ(receive(), 0);
}

TEST_F(VirtioPortTest, AHostThatCameBackWhileTheAgentWaitedIsNotTakenForAnEnd) {
    model_.connect();
    model_.then([](PortModel& model) {
        model.leave();
        model.connect();
    });
    model_.then([](PortModel& model) { model.sendToGuest("again\n"); });
    EXPECT_EQ(receiveText(), "again\n");
    EXPECT_FALSE(port_.inputHasEnded());
    EXPECT_EQ(model_.reads, 1);
}

TEST_F(VirtioPortTest, AHostThatCameBackBeforeTheAgentLookedIsNotTakenForAnEnd) {
    model_.connect();
    model_.sendToGuest("ping\n");
    EXPECT_EQ(receiveText(), "ping\n");
    model_.leave();
    model_.connect();
    model_.sendToGuest("again\n");
    EXPECT_EQ(receiveText(), "again\n");
    model_.leave();
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(model_.waits, 0);
}

TEST_F(VirtioPortTest, AHostThatComesBetweenTheReadAndTheWaitIsNotMissed) {
    model_.afterRead = [](PortModel& model) {
        model.connect();
        model.sendToGuest("ping\n");
    };
    EXPECT_EQ(receiveText(), "ping\n");
}

TEST_F(VirtioPortTest, ASignalDoesNotEndTheInput) {
    model_.connect();
    model_.interruptions = 3;
    model_.then([](PortModel& model) { model.sendToGuest("ping\n"); });
    EXPECT_EQ(receiveText(), "ping\n");
    EXPECT_EQ(model_.reads, 4);
}

TEST_F(VirtioPortTest, APortThatIsReadyForNothingIsWaitedOnAllTheSame) {
    model_.readyForNothing = true;
    model_.connect();
    model_.then([](PortModel& model) { model.sendToGuest("ping\n"); });
    EXPECT_EQ(receiveText(), "ping\n");
    EXPECT_LE(model_.reads, 3);
}

TEST_F(VirtioPortTest, AWaitThatFailsIsNoEndAndLosesNothing) {
    model_.connect();
    model_.then([](PortModel& model) { model.sendToGuest("ping\n"); });
    EXPECT_EQ(receiveText(), "ping\n");
    model_.nextWaitFails = true;
    model_.then([](PortModel& model) { model.sendToGuest("again\n"); });
    EXPECT_EQ(receiveText(), "again\n");
    model_.nextWaitFails = true;
    model_.changes = 0;
    EXPECT_EQ(port_.receive(buffer_, 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    model_.nextWaitFails = true;
    model_.then([](PortModel& model) { model.leave(); });
    EXPECT_EQ(receive(), 0);
    EXPECT_THROW(receive(), WaitsForEver);
}

TEST_F(VirtioPortTest, AHostThatSaysNothingIsWaitedForAsLongAsAskedAndIsStillThere) {
    model_.connect();
    EXPECT_EQ(port_.receive(buffer_, 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(model_.timeouts, 1);
    EXPECT_FALSE(port_.inputHasEnded());
    model_.then([](PortModel& model) { model.leave(); });
    EXPECT_EQ(receive(), 0);
    EXPECT_TRUE(port_.inputHasEnded());
}

TEST_F(VirtioPortTest, AHostThatDoesNotComeIsWaitedForAsLongAsAsked) {
    EXPECT_EQ(port_.receive(buffer_, 100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(model_.timeouts, 1);
    EXPECT_FALSE(port_.inputHasEnded());
}

TEST_F(VirtioPortTest, AnUnpluggedPortIsAnErrorAndNoEnd) {
    model_.connect();
    model_.then([](PortModel& model) { model.unplug(); });
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_FALSE(port_.inputHasEnded());
}

TEST_F(VirtioPortTest, APortThatIsUnpluggedWithoutAHostIsAnError) {
    model_.then([](PortModel& model) { model.unplug(); });
    EXPECT_EQ(receive(), -1);
    EXPECT_FALSE(port_.inputHasEnded());
}

TEST_F(VirtioPortTest, APortThatCannotBeWaitedOnIsAnErrorAndNoSpin) {
    model_.canWait = false;
    model_.changes = 1;
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(model_.reads, 1);
}

TEST_F(VirtioPortTest, ALongResponseGoesOutWholeAndInOrder) {
    model_.connect();
    std::string response;
    for (int number = 0; number < 20000; ++number) {
        response += std::to_string(number) + ",";
    }
    port_.send(response);
    EXPECT_EQ(model_.outbound, response);
    EXPECT_GT(model_.writes, 2);
}

TEST_F(VirtioPortTest, PiecesGoOutWholeAndInOrder) {
    model_.connect();
    const std::string text(100'000, 'x');
    const std::array<std::string_view, 4> pieces = {"before", text, "", "after\n"};
    port_.send(pieces);
    EXPECT_EQ(model_.outbound, "before" + text + "after\n");
}

TEST_F(VirtioPortTest, AHostThatLeavesBetweenTwoPiecesLosesTheRest) {
    model_.connect();
    model_.space = 6;
    model_.then([](PortModel& model) { model.leave(); });
    const std::array<std::string_view, 3> pieces = {"before", "text", "after\n"};
    port_.send(pieces);
    EXPECT_EQ(model_.outbound, "before");
}

TEST_F(VirtioPortTest, AHostThatReadsSlowlyGetsEverything) {
    model_.connect();
    model_.space = 10;
    for (int turn = 0; turn < 9; ++turn) {
        model_.then([](PortModel& model) { model.readFromGuest(10); });
    }
    const std::string response(100, 'x');
    port_.send(response);
    EXPECT_EQ(model_.outbound, response);
}

TEST_F(VirtioPortTest, AHostThatDoesNotReadHoldsTheSender) {
    model_.connect();
    model_.space = 10;
    EXPECT_THROW(port_.send(std::string(11, 'x')), WaitsForEver);
}

TEST_F(VirtioPortTest, AHostThatLeavesLosesTheRestAndFreesTheSender) {
    model_.connect();
    model_.space = 10;
    model_.then([](PortModel& model) { model.leave(); });
    port_.send(std::string(100, 'x'));
    EXPECT_EQ(model_.outbound.size(), 10U);
}

TEST_F(VirtioPortTest, AHostThatLeavesBetweenTheWaitAndTheWriteFreesTheSenderToo) {
    model_.connect();
    model_.beforeWrite = [](PortModel& model) { model.leave(); };
    port_.send("response\n");
    EXPECT_EQ(model_.outbound, "");
    EXPECT_EQ(model_.writes, 1);
}

TEST_F(VirtioPortTest, WithoutAHostAResponseIsDropped) {
    port_.send("response\n");
    EXPECT_EQ(model_.writes, 0);
}

TEST_F(VirtioPortTest, AHostThatLeftDuringAResponseStillEndsTheInputOnce) {
    model_.connect();
    model_.sendToGuest("ping\n");
    EXPECT_EQ(receiveText(), "ping\n");
    model_.leave();
    port_.send("response\n");
    EXPECT_EQ(receive(), 0);
    EXPECT_THROW(receive(), WaitsForEver);
}

TEST_F(VirtioPortTest, AHostWhoseBytesComeBeforeItsNoticeIsAnswered) {
    model_.then([](PortModel& model) { model.sendToGuest("ping\n"); });
    EXPECT_EQ(receiveText(), "ping\n");
    model_.then([](PortModel& model) { ++model.changes; });
    model_.then([](PortModel& model) { model.connect(); });
    port_.send("response\n");
    EXPECT_EQ(model_.outbound, "response\n");
    model_.then([](PortModel& model) { model.leave(); });
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(model_.timeouts, 0);
}

TEST_F(VirtioPortTest, AHostWhoseBytesComeBeforeItsNoticeHasNotLeft) {
    model_.then([](PortModel& model) { model.sendToGuest("half"); });
    EXPECT_EQ(receiveText(), "half");
    model_.then([](PortModel& model) { model.connect(); });
    model_.then([](PortModel& model) { model.sendToGuest("a request\n"); });
    EXPECT_EQ(receiveText(), "a request\n");
}

TEST_F(VirtioPortTest, ANewHostIsAnsweredWhoseBytesComeAfterTheOldOneLeftAndBeforeItsNotice) {
    model_.connect();
    model_.sendToGuest("old\n");
    EXPECT_EQ(receiveText(), "old\n");
    port_.send("to old\n");
    model_.leave();
    model_.sendToGuest("new\n");
    EXPECT_EQ(receiveText(), "new\n");
    model_.then([](PortModel& model) { model.connect(); });
    port_.send("to new\n");
    EXPECT_EQ(model_.outbound, "to old\nto new\n");
}

TEST_F(VirtioPortTest, AHostThatHasLeftIsWaitedForOnceHoweverMuchItSent) {
    model_.connect();
    model_.sendToGuest(std::string(3 * 4096, '\n'));
    model_.leave();
    for (int part = 0; part < 3; ++part) {
        EXPECT_EQ(receive(), 4096);
        port_.send("response\n");
        port_.send("response\n");
    }
    EXPECT_EQ(model_.timeouts, 1);
    EXPECT_EQ(receive(), 0);
    EXPECT_EQ(model_.timeouts, 1);
}

TEST_F(VirtioPortTest, ANewHostIsAnsweredWhoseBytesComeBeforeTheOldOneIsShownToHaveLeft) {
    model_.connect();
    model_.sendToGuest("new\n");
    EXPECT_EQ(receiveText(), "new\n");
    model_.leave();  // the old one
    model_.then([](PortModel& model) { ++model.changes; });
    model_.then([](PortModel& model) { model.connect(); });
    port_.send("to new\n");
    EXPECT_EQ(model_.outbound, "to new\n");
    EXPECT_EQ(model_.timeouts, 0);
}

TEST_F(VirtioPortTest, AHostThatLeavesInTheMiddleOfAResponseIsNotWaitedFor) {
    model_.connect();
    model_.sendToGuest("ping\n");
    EXPECT_EQ(receiveText(), "ping\n");
    model_.space = 10;
    model_.then([](PortModel& model) { model.leave(); });
    port_.send(std::string(100, 'x'));
    EXPECT_EQ(model_.outbound.size(), 10U);
    EXPECT_EQ(model_.waits, 0);
    EXPECT_EQ(receive(), 0);
}

TEST_F(VirtioPortTest, ASignalLosesNoByteOfAResponseAndDoublesNone) {
    model_.connect();
    model_.interruptions = 2;
    port_.send("response\n");
    EXPECT_EQ(model_.outbound, "response\n");
}

TEST_F(VirtioPortTest, APortThatRefusesAPieceIsNotTriedForEver) {
    model_.connect();
    model_.refusesPieces = true;
    port_.send("response\n");
    EXPECT_EQ(model_.writes, 1);
}

TEST_F(VirtioPortTest, APortThatFailsIsNotTriedForEver) {
    model_.connect();
    model_.writeError = ENOMEM;
    port_.send("response\n");
    EXPECT_EQ(model_.writes, 1);
}

TEST_F(VirtioPortTest, APortThatCannotBeWaitedOnLosesTheResponseAndFreesTheSender) {
    model_.connect();
    model_.canWait = false;
    port_.send("response\n");
    EXPECT_EQ(model_.writes, 0);
}

TEST_F(VirtioPortTest, APortThatCannotBeWaitedOnAnyMoreLosesTheRestOfTheResponse) {
    model_.connect();
    model_.space = 10;
    model_.then([](PortModel& model) { model.canWait = false; });
    port_.send(std::string(100, 'x'));
    EXPECT_EQ(model_.outbound.size(), 10U);
    EXPECT_EQ(model_.writes, 1);
}

TEST_F(VirtioPortTest, TheNoticeOfAHostIsNotWaitedForAtAPortThatCannotBeWaitedOn) {
    model_.sendToGuest("ping\n");
    EXPECT_EQ(receiveText(), "ping\n");
    model_.canWait = false;
    port_.send("response\n");
    EXPECT_EQ(model_.writes, 0);
    EXPECT_EQ(model_.waits, 0);
}

TEST_F(VirtioPortTest, APortUnpluggedDuringAResponseFreesTheSender) {
    model_.connect();
    model_.beforeWrite = [](PortModel& model) { model.unplug(); };
    port_.send("response\n");
    EXPECT_EQ(model_.outbound, "");
}

}  // namespace
}  // namespace corvane
