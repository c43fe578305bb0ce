#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "tests/integration/notice_support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_sink.h"
#include "tests/tools/verbs/verb_runner.h"

// `vltctl notify`, with a notification service on a bus of the test's own.

namespace {

using Words = std::vector<std::string>;

// The verb, going on while the test is the user.
class Notify {
 public:
  explicit Notify(const Words& words) {
    ChildOptions options;
    options.arguments = {VLTCTL_PROGRAM, "notify"};
    options.arguments.insert(options.arguments.end(), words.begin(), words.end());
    options.capture = true;
    EXPECT_TRUE(child.Start(options));
  }
  void ExpectEnd(int status, const std::string& output, const std::string& error) {
    EXPECT_EQ(status, child.Wait(60s));
    EXPECT_EQ(output, child.Output());
    EXPECT_EQ(error.empty(), child.Errors().empty()) << child.Errors();
    EXPECT_NE(std::string::npos, child.Errors().find(error)) << child.Errors();
  }
  ChildProcess child;
};

class NotifyVerb : public NoticeTest {
 private:
  const NoHelpersLeft noLeaks;
};

TEST_F(NotifyVerb, ShowsTitleAndTextAndReplacesTheEarlierOneOfItsId) {
  const PrivateBus bus;
  const std::string text =
      "<K\xC3\xBC"
      "che> \xE6\x97\xA5\n" +
      std::string(5000, 'x');
  {
    NotificationService service(bus, {.capabilities = {"body", "body-markup", "actions"}});
    for (const Words& words : {Words{"T\n1", text, "--id", "a"},
                               {"2", "x", "--id", "a"},
                               {"3", "x", "--id", "b"},
                               {"4", "x"}}) {
      Notify(words).ExpectEnd(0, "", "");
    }
    const std::vector<NotificationCall> calls = service.Calls(4);
    ASSERT_EQ(4u, calls.size());
    EXPECT_EQ("vltctl", calls[0].appName);
    EXPECT_EQ("T 1", calls[0].title);
    EXPECT_EQ(
        "&lt;K\xC3\xBC"
        "che&gt;" +
            text.substr(8),
        calls[0].body);
    EXPECT_EQ(Words{}, calls[0].buttons);
    EXPECT_EQ(0, calls[0].expireTimeout);
    const uint32_t replaced[] = {0, calls[0].id, 0, 0};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(replaced[i], calls[i].replaced) << i;
  }
  // Another service counts from the beginning, so the number there is somebody else's notice.
  NotificationService other(bus, {.capabilities = {}});
  Notify({"5", "x", "--id", "a"}).ExpectEnd(0, "", "");
  EXPECT_EQ(0u, other.Calls(1).at(0).replaced);
  EXPECT_EQ("5: x", other.Calls(1).at(0).title);
  EXPECT_EQ("", other.Calls(1).at(0).body);
}

TEST_F(NotifyVerb, WaitsForWhatTheUserDoes) {
  const PrivateBus bus;
  NotificationService service(bus, {.capabilities = {"body", "actions"}});
  const Words actions = {"T", "x", "--action", "yes=Do it", "--action=no=Don't"};
  {
    Notify notify(actions);
    const std::vector<NotificationCall> calls = service.Calls(1);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ((Words{"yes", "Do it", "no", "Don't"}), calls[0].buttons);
    service.Press(calls[0].id + 1, "no");  // of another notice
    service.Close(calls[0].id + 1);
    service.Press(calls[0].id, "yes");
    notify.ExpectEnd(0, "yes\n", "");
  }
  {
    Notify notify({"T", "x", "--wait"});
    service.Close(service.Calls(2).at(1).id);
    notify.ExpectEnd(0, "", "was dismissed");
  }
  {
    Words json = actions;
    json.push_back("--json");
    Notify notify(json);
    service.Press(service.Calls(3).at(2).id, "no");
    notify.ExpectEnd(0, "{\"outcome\":\"action\",\"key\":\"no\",\"text\":null}\n", "");
  }
  Notify({"T", "x", "--wait", "--timeout", "100ms"}).ExpectEnd(4, "", "still shown");
  // Interrupted: the helper ends, too, and the notice stays.
  Notify notify({"T", "x", "--wait"});
  EXPECT_EQ(5u, service.Calls(5).size());
  notify.child.Signal(SIGINT);
  EXPECT_EQ(-SIGINT, notify.child.Wait(60s));
}

TEST_F(NotifyVerb, SaysWhereTheTextWentIfNobodySeesIt) {
  const struct {
    const char* name;
    NotificationService::Options options;
    const char* reason;
  } rows[] = {{"refuses", {.refuses = true}, "the notification service does not show it"},
              {"no id", {.givesNoID = true}, "the notification service does not show it"}};
  const PrivateBus bus;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ClearTestLog();
    NotificationService service(bus, row.options);
    Notify({"T", "lost"}).ExpectEnd(0, "", std::string("the system log: ") + row.reason);
    EXPECT_EQ(1, LinesInLog("T: lost"));
    Notify({"T", "lost", "--wait"}).ExpectEnd(3, "", row.reason);
  }
  Notify({"T", "lost"}).ExpectEnd(0, "", "no notification service replies");
  {
    // A service that ends has perhaps shown it to nobody.
    ClearTestLog();
    auto service = std::make_unique<NotificationService>(bus);
    Notify notify({"T", "unread", "--wait"});
    EXPECT_EQ(1u, service->Calls(1).size());
    service.reset();
    notify.ExpectEnd(3, "", "the notification service ended");
    EXPECT_EQ(1, LinesInLog("T: unread"));
  }
  {
    NotificationService service(bus, {.capabilities = {"body"}});
    Notify notify({"T", "x", "--action", "a=A"});
    service.Close(service.Calls(1).at(0).id);
    notify.ExpectEnd(0, "", "the desktop shows no buttons");
    EXPECT_EQ(Words{}, service.Calls(1).at(0).buttons);
  }
  const ScopedVariable none("DBUS_SESSION_BUS_ADDRESS", nullptr);
  ClearTestLog();
  Notify({"T", "lost", "--json"})
      .ExpectEnd(0,
                 "{\"outcome\":\"logged\",\"key\":null,\"text\":\"the text went to the system log: "
                 "the session has no message bus, so no desktop is known\"}\n",
                 "no message bus");
  EXPECT_EQ(1, LinesInLog("T: lost"));
  const TestSink sink("VLTHOST_NOTICES");
  Notify({"T", "kept", "--wait"}).ExpectEnd(0, "", "the text went to the file ");
  EXPECT_EQ(Words{"T: kept"}, sink.Lines());
}

TEST_F(NotifyVerb, RefusesWhatIsNotANotice) {
  ExpectRuns({"notify"}, {{{"T"}, 2, "", "too few arguments"},
                          {{"", "x"}, 2, "", "the title is empty"},
                          {{"T", "\xFF"}, 2, "", "not UTF-8"},
                          {{"T", std::string(40000, 'x')}, 2, "", "too long"},
                          {{"T", "x", "--action", "a"}, 2, "", "\"a\" has not the form KEY=TEXT"},
                          {{"T", "x", "--action", "=a"}, 2, "", "\"=a\""},
                          {{"T", "x", "--id", "a/b"}, 2, "", "\"a/b\""},
                          {{"T", "x", "--timeout", "never"}, 2, "", "\"never\""}});
}

}  // namespace
