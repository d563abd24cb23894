#include "platform/linux/journal_log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/private_mounts.h"

namespace corvane {
namespace {

using Fields = std::map<std::string, std::string>;

constexpr char journalSocket[] = "/run/systemd/journal/socket";

DescriptorGuard bindJournal() {
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    return bindDatagramSocket(journalSocket);
}

/// The journal's native protocol: NAME=value and a newline, or, for any bytes, NAME, a newline,
/// the length in 8 little-endian bytes, the value and a newline.
Fields parseEntry(const std::string& entry) {
    Fields fields;
    for (std::size_t at = 0; at < entry.size();) {
        const std::size_t end = entry.find('\n', at);
        const std::string line = entry.substr(at, end - at);
        if (const std::size_t equals = line.find('='); equals != std::string::npos) {
            fields[line.substr(0, equals)] = line.substr(equals + 1);
            at = end + 1;
        } else {
            std::uint64_t length = 0;
            std::memcpy(&length, entry.data() + end + 1, sizeof length);
            fields[line] = entry.substr(end + 9, length);
            at = end + 9 + length + 1;
        }
    }
    return fields;
}

/// An entry that is too large for a datagram comes as a file.
Fields receiveEntry(int socket) {
    const Datagram datagram = receiveDatagram(socket);
    if (datagram.passed.empty()) {
        return parseEntry(datagram.bytes);
    }
    struct stat status {};
    ::fstat(datagram.passed.borrow(), &status);
    std::string entry(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t filled = 0;
    while (filled < entry.size()) {
        const ssize_t count = ::pread(datagram.passed.borrow(), entry.data() + filled,
                                      entry.size() - filled, static_cast<off_t>(filled));
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    return parseEntry(entry);
}

class JournalTest : public testing::Test {
 protected:
    void SetUp() override {
        if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    /// Writes a text and returns what is wrong with the entry that arrives.
    static std::string check(LogCategory category, const std::string& text,
                             const std::string& priority, const std::string& categoryName) {
        return withPrivateMounts({"/run"}, [&]() -> std::string {
            const DescriptorGuard journal = bindJournal();
            JournalLog log;
            log.createCategories("corvane");
            log.write(category, text);
            const Fields fields = receiveEntry(journal.borrow());
            const Fields expected{{"MESSAGE", text},
                                  {"PRIORITY", priority},
                                  {"SYSLOG_IDENTIFIER", "corvane"},
                                  {"CORVANE_CATEGORY", categoryName}};
            if (fields == expected) {
                return {};
            }
            std::string found = "unexpected fields:";
            for (const auto& [name, value] : fields) {
                found += " " + name + "=" + value.substr(0, 100);
            }
            return found;
        });
    }
};

TEST_F(JournalTest, StatusGoesOutAtTheErrorLevelWithItsNewline) {
    EXPECT_EQ("", check(LogCategory::status, "text 100%s\n", "3", "status"));
}

TEST_F(JournalTest, TransactionsGoOutAtTheInfoLevel) {
    EXPECT_EQ("", check(LogCategory::transactions, "Request: 'x'", "6", "transactions"));
}

TEST_F(JournalTest, NewlinesAndFieldsInsideATextStayText) {
    EXPECT_EQ("", check(LogCategory::status, "one\nPRIORITY=0\n\ntwo", "3", "status"));
}

TEST_F(JournalTest, NulsAndOtherBytesStay) {
    EXPECT_EQ("", check(LogCategory::status, std::string("a\0b\xFF\n", 5), "3", "status"));
    EXPECT_EQ("", check(LogCategory::status, std::string("a\0b", 3), "3", "status"));
}

TEST_F(JournalTest, AnEmptyTextIsAnEntry) {
    EXPECT_EQ("", check(LogCategory::status, "", "3", "status"));
}

TEST_F(JournalTest, AVeryLongTextIsWhole) {
    EXPECT_EQ("", check(LogCategory::status, std::string(16U << 20U, 'x') + "\n", "3", "status"));
}

TEST_F(JournalTest, WithoutAJournalSyslogTakesTheEntry) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, []() -> std::string {
                  const DescriptorGuard daemon = bindDatagramSocket("/dev/log");
                  JournalLog log;
                  log.createCategories("corvane");
                  if (!log.records(LogCategory::status)) {
                      return "does not record with syslog's socket";
                  }
                  log.write(LogCategory::status, "text\n");
                  const std::string entry = receiveDatagram(daemon.borrow()).bytes;
                  return entry.starts_with("<27>") && entry.ends_with(": text\n")
                             ? ""
                             : "wrong: " + entry;
              }));
}

TEST_F(JournalTest, AJournalThatIsNotListeningLeavesTheEntryToSyslog) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, []() -> std::string {
                  bindJournal().closeNow();  // the socket's file stays
                  const DescriptorGuard daemon = bindDatagramSocket("/dev/log");
                  JournalLog log;
                  log.createCategories("corvane");
                  log.write(LogCategory::status, "text\n");
                  return receiveDatagram(daemon.borrow()).bytes.ends_with(": text\n")
                             ? ""
                             : "wrong entry";
              }));
}

TEST_F(JournalTest, AnEntryGoesToOneLogOnly) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, []() -> std::string {
                  const DescriptorGuard journal = bindJournal();
                  const DescriptorGuard daemon = bindDatagramSocket("/dev/log");
                  JournalLog log;
                  log.createCategories("corvane");
                  log.write(LogCategory::status, "text\n");
                  if (!hasDatagram(journal.borrow())) {
                      return "nothing in the journal";
                  }
                  return hasDatagram(daemon.borrow()) ? "also in syslog" : "";
              }));
}

TEST_F(JournalTest, AJournalThatStartsLaterIsUsedFromThenOn) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, []() -> std::string {
                  JournalLog log;
                  log.createCategories("corvane");
                  if (log.records(LogCategory::transactions)) {
                      return "records without any log";
                  }
                  log.write(LogCategory::status, "lost\n");
                  const DescriptorGuard journal = bindJournal();
                  if (!log.records(LogCategory::transactions)) {
                      return "does not record with a journal";
                  }
                  log.write(LogCategory::status, "found\n");
                  return receiveEntry(journal.borrow())["MESSAGE"] == "found\n" ? ""
                                                                                : "wrong entry";
              }));
}

TEST_F(JournalTest, AJournalThatVanishesIsMissedAtOnceByStatusAndSoonByTransactions) {
    EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, []() -> std::string {
                  DescriptorGuard journal = bindJournal();
                  JournalLog log;
                  log.createCategories("corvane");
                  if (!log.records(LogCategory::transactions)) {
                      return "does not record with a journal";
                  }
                  journal.closeNow();
                  ::unlink(journalSocket);
                  const DescriptorGuard daemon = bindDatagramSocket("/dev/log");
                  log.write(LogCategory::status, "found\n");
                  if (!receiveDatagram(daemon.borrow()).bytes.ends_with(": found\n")) {
                      return "wrong entry";
                  }
                  journal = bindJournal();
                  if (!log.records(LogCategory::transactions)) {
                      return "does not record with a journal that is back";
                  }
                  journal.closeNow();
                  ::unlink(journalSocket);
                  ::unlink("/dev/log");
                  // Nothing but the clock ends it.
                  while (log.records(LogCategory::transactions)) {
                      std::this_thread::sleep_for(std::chrono::milliseconds(10));
                  }
                  return log.records(LogCategory::status) ? "status is recorded nowhere" : "";
              }));
}

}  // namespace
}  // namespace corvane
