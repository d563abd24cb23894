#include "tests/vm/support/file_client.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "tests/vm/support/base64.h"

namespace corvane::vm {
namespace {

std::string requestLine(std::string_view command, const FileClient::Arguments& arguments) {
    return boost::json::serialize(
               boost::json::object{{"execute", command}, {"arguments", arguments}}) +
           '\n';
}

FileClient::Transfer transferOf(const boost::json::value& result) {
    return {result.at("count").to_number<std::uint64_t>(), result.at("eof").as_bool()};
}

}  // namespace

std::vector<boost::json::value> FileClient::askAll(std::string_view command,
                                                   const std::vector<Arguments>& requests) {
    std::string lines;
    for (const Arguments& arguments : requests) {
        lines += requestLine(command, arguments);
    }
    host_.sendWhileReceiving(lines);
    std::vector<boost::json::value> answers;
    while (answers.size() < requests.size()) {
        answers.push_back(boost::json::parse(host_.receiveLine()));
    }
    return answers;
}

FileClient::Handle FileClient::open(std::string_view path, std::optional<std::string_view> mode) {
    Arguments arguments{{"path", path}};
    if (mode) {
        arguments["mode"] = *mode;
    }
    return ask("guest-file-open", arguments).to_number<Handle>();
}

void FileClient::close(Handle handle) {
    ask("guest-file-close", {{"handle", handle}});
}

FileClient::Piece FileClient::read(Handle handle, std::optional<std::uint64_t> count) {
    Arguments arguments{{"handle", handle}};
    if (count) {
        arguments["count"] = *count;
    }
    const boost::json::value result = ask("guest-file-read", arguments);
    Piece piece{decodeBase64(result.at("buf-b64").as_string()), result.at("eof").as_bool()};
    if (result.at("count").to_number<std::uint64_t>() != piece.bytes.size()) {
        throw std::runtime_error("the count is not that of the bytes");
    }
    return piece;
}

FileClient::Transfer FileClient::write(Handle handle, std::string_view bytes) {
    return transferOf(
        ask("guest-file-write", {{"handle", handle}, {"buf-b64", encodeBase64(bytes)}}));
}

FileClient::Position FileClient::seek(Handle handle, std::int64_t offset,
                                      const boost::json::value& whence) {
    const boost::json::value result =
        ask("guest-file-seek", {{"handle", handle}, {"offset", offset}, {"whence", whence}});
    return {result.at("position").to_number<std::uint64_t>(), result.at("eof").as_bool()};
}

void FileClient::flush(Handle handle) {
    ask("guest-file-flush", {{"handle", handle}});
}

void FileClient::store(std::string_view path, std::string_view bytes, std::size_t pieceSize) {
    const Handle handle = open(path, "w");
    while (!bytes.empty()) {
        const std::string_view piece = bytes.substr(0, pieceSize);
        if (write(handle, piece).count != piece.size()) {
            throw std::runtime_error("not all was written");
        }
        bytes.remove_prefix(piece.size());
    }
    close(handle);
}

std::string FileClient::fetch(std::string_view path, std::size_t pieceSize) {
    const Handle handle = open(path);
    std::string bytes;
    for (bool end = false; !end;) {
        const Piece piece = read(handle, pieceSize);
        bytes += piece.bytes;
        end = piece.eof;
    }
    close(handle);
    return bytes;
}

void FileClient::startTransfer(Direction direction, Handle handle, unsigned port,
                               const Arguments& further) {
    Arguments arguments{{"handle", handle}, {"cid", 2}, {"port", port}};
    arguments.insert(further.begin(), further.end());
    host_.send(requestLine(direction == Direction::read ? "mirel-guest-file-vsock-read"
                                                        : "mirel-guest-file-vsock-write",
                           arguments));
}

FileClient::Transfer FileClient::awaitTransfer(Limit limit) {
    const boost::json::value answer = boost::json::parse(host_.receiveLine(limit));
    if (const boost::json::value* error = answer.as_object().if_contains("error")) {
        throw RequestRefused(error->at("desc").as_string().c_str());
    }
    return transferOf(answer.at("return"));
}

std::string FileClient::awaitRefusal(Limit limit) {
    try {
        awaitTransfer(limit);
        return "";
    } catch (const RequestRefused& refused) {
        return refused.what();
    }
}

}  // namespace corvane::vm
