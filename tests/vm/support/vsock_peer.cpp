#include "tests/vm/support/vsock_peer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "tests/vm/support/virtual_machine.h"

namespace corvane::vm {
namespace {

/// The end of a text that may be long, to be shown.
std::string tail(const std::string& text) {
    constexpr std::size_t shown = 2000;
    return text.size() <= shown ? text : "..." + text.substr(text.size() - shown);
}

}  // namespace

VsockPeer::VsockPeer(VirtualMachine& machine) : socket_(machine.bridgePath()) {
    machine.shell().check("vsock-host bridge /dev/corvane-bridge");
}

unsigned VsockPeer::listen() {
    const unsigned port = nextPort_++;
    listen(port);
    return port;
}

void VsockPeer::listen(unsigned port) {
    sendFrame(FrameKind::listen, std::to_string(port));
    Frame answer = receiveFrame(hangLimit);
    while (answer.kind != FrameKind::listening) {
        if (answer.kind == FrameKind::failed) {
            throw std::runtime_error("no listener at vsock port " + std::to_string(port) + ": " +
                                     answer.payload);
        }
        answer = receiveFrame(hangLimit);  // what was still on its way from before
    }
    forget();
}

void VsockPeer::awaitConnection() {
    if (receiveFrame(hangLimit).kind != FrameKind::accepted) {
        throw std::logic_error("the vsock bridge is out of step");
    }
}

void VsockPeer::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::string_view piece = bytes.substr(0, largestPayload);
        sendFrame(FrameKind::data, piece);
        bytes.remove_prefix(piece.size());
    }
}

void VsockPeer::finishSending() {
    sendFrame(FrameKind::finish);
}

void VsockPeer::close() {
    sendFrame(FrameKind::close);
    while (receiveFrame(hangLimit).kind != FrameKind::closed) {
    }
    forget();
}

void VsockPeer::forget() {
    received_.clear();
    end_.reset();
}

std::string VsockPeer::await(std::string_view text, Limit limit) {
    std::size_t searched = 0;
    for (;;) {
        const std::size_t found = received_.find(text, searched);
        if (found != std::string::npos) {
            std::string taken = received_.substr(0, found + text.size());
            received_.erase(0, taken.size());
            return taken;
        }
        searched = received_.size() - std::min(received_.size(), text.size());
        try {
            receiveMore(limit);
        } catch (const HangError&) {
            throw HangError("not '" + std::string(text) + "' came but: " + tail(received_));
        } catch (const EndOfStream&) {
            throw EndOfStream("not '" + std::string(text) +
                              "' came but the end after: " + tail(received_));
        }
    }
}

std::string VsockPeer::receive(std::size_t count, Limit limit) {
    while (received_.size() < count) {
        receiveMore(limit);
    }
    std::string bytes = received_.substr(0, count);
    received_.erase(0, count);
    return bytes;
}

std::string VsockPeer::receiveAll(Limit limit) {
    while (!end_) {
        receiveMore(limit);
    }
    if (!end_->empty()) {
        throw std::runtime_error("the connection broke: " + *end_);
    }
    return std::exchange(received_, {});
}

void VsockPeer::sendFrame(FrameKind kind, std::string_view payload) {
    socket_.sendWhileReceiving(encodeFrame(kind, payload));
}

Frame VsockPeer::receiveFrame(Limit limit) {
    for (;;) {
        if (auto frame = frames_.next()) {
            return *std::move(frame);
        }
        frames_.add(socket_.receiveSome(limit));
    }
}

void VsockPeer::receiveMore(Limit limit) {
    if (end_) {
        throw EndOfStream("the agent's end has ended the connection: " + *end_);
    }
    Frame frame = receiveFrame(limit);
    switch (frame.kind) {
        case FrameKind::data:
            received_ += frame.payload;
            break;
        case FrameKind::ended:
            end_ = std::move(frame.payload);
            break;
        default:
            throw std::logic_error("the vsock bridge is out of step");
    }
}

}  // namespace corvane::vm
