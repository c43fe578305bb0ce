#include <gtest/gtest.h>

#include <climits>

#include <CoreFoundation/CoreFoundation.h>

#include "aeport/port_listener.h"
#include "platform/host/ports/introspect.h"
#include "tests/launch/open_launch.h"
#include "tests/support/repeated_signals.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"

namespace {

// Signatures that no test's application has, since the process list shows those of other tests.
constexpr OSType kSignature = FourCC('L', 'c', 'h', 'T');
constexpr OSType kNobody = FourCC('L', 'c', 'h', 'N');

// No way to find or start anything.
VLTLaunchSpec EmptySpec() { return {}; }

VLTLaunchSpec PortSpec(const char* port) {
  VLTLaunchSpec spec = {};
  spec.signature = kSignature;
  spec.portName = port;
  spec.findByPortName = true;
  return spec;
}

// Returns the results in turn, then the last one repeatedly, and counts its calls.
struct Probe {
  std::vector<OSStatus> answers;
  int count = 0;

  static OSStatus Ask(void* first, void* second) {
    auto* probe = static_cast<Probe*>(first);
    EXPECT_EQ(nullptr, second);
    const size_t index = static_cast<size_t>(probe->count++);
    return index < probe->answers.size() ? probe->answers[index] : probe->answers.back();
  }
};

TEST(WaitForLaunch, ProbesUntilTheResultIsNotProcNotFoundOrTriesRunOut) {
  const std::tuple<std::vector<OSStatus>, int, int, OSStatus, int> rows[] = {
      {{0}, 20, 1, 0, 1},
      {{procNotFound, procNotFound, 0}, 20, 0, 0, 3},
      {{procNotFound, ioErr, 0}, 20, 0, ioErr, 2},
      {{procNotFound}, 5, 0, procNotFound, 5},
      {{procNotFound}, 3, INT_MIN, procNotFound, 3},
      {{0}, 0, 1, 0, 0},                            // succeeds without a probe
      {{procNotFound, 0}, -1, 0, procNotFound, 1},  // one probe
  };
  for (const auto& [answers, retries, sleepSeconds, err, count] : rows) {
    Probe probe = {answers};
    EXPECT_EQ(err, VLTLaunch::waitForLaunch(Probe::Ask, &probe, nullptr, sleepSeconds, retries));
    EXPECT_EQ(count, probe.count);
  }
  EXPECT_EQ(paramErr, VLTLaunch::waitForLaunch(nullptr, nullptr, nullptr, 0, 0));
  EXPECT_EQ(paramErr, VLTLaunch::waitForPort("", 0, 0));
  EXPECT_EQ(paramErr, VLTLaunch::waitForPSN(0, 0, 0));
  EXPECT_EQ(0, VLTLaunch::waitForPort("test.nobody", 0, 0));
  EXPECT_EQ(procNotFound, VLTLaunch::waitForPort("test.nobody", 0, 2));
  EXPECT_EQ(procNotFound, VLTLaunch::waitForPSN(kNobody, 0, 2));
}

TEST(WaitForLaunch, SleepsWholeSecondsAfterEachProbeAlsoTheLast) {
  const RepeatedSignals signals;
  const auto start = std::chrono::steady_clock::now();
  Probe probe = {{procNotFound}};
  EXPECT_EQ(procNotFound, VLTLaunch::waitForLaunch(Probe::Ask, &probe, nullptr, 1, 2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1900ms);
}

// Each step returns its given result and appends its letter.
class ToldLaunch : public OpenLaunch {
 public:
  ToldLaunch() : OpenLaunch(EmptySpec()) {}

  OSStatus find() override { return Step('f', found); }
  OSStatus findAndLaunchFromSpecified() override { return Step('p', specified); }
  OSStatus findAndLaunchFromSignature() override { return Step('s', bySignature); }
  OSStatus findAndLaunchFromBundleID() override { return Step('b', byBundle); }
  OSStatus waitForLaunch() override { return Step('w', waited); }

  OSStatus found = procNotFound;
  OSStatus specified = procNotFound;
  OSStatus bySignature = procNotFound;
  OSStatus byBundle = procNotFound;
  OSStatus waited = 0;
  std::string steps;

 private:
  OSStatus Step(char letter, OSStatus result) {
    steps += letter;
    return result;
  }
};

TEST(FindAndLaunch, TakesItsStepsInOrder) {
  constexpr OSStatus kNone = procNotFound;
  constexpr OSStatus kUnderWay = kLSLaunchInProgressErr;
  const std::tuple<OSStatus, bool, OSStatus, OSStatus, OSStatus, OSStatus, OSStatus, const char*>
      rows[] = {
          {0, true, 0, 0, 0, 0, 0, "f"},
          {ioErr, true, 0, 0, 0, 0, ioErr, "f"},
          {kNone, false, 0, 0, 0, 0, kNone, "f"},
          {kNone, true, 0, kNone, kNone, 0, 0, "fpw"},
          {kNone, true, kNone, 0, kNone, 0, 0, "fpbw"},
          {kNone, true, kNone, kNone, 0, 0, 0, "fpbsw"},
          {kNone, true, kNone, kNone, kNone, 0, kNone, "fpbs"},
          {kNone, true, kUnderWay, 0, 0, 0, 0, "fpw"},  // counts as started
          {kNone, true, ioErr, 0, 0, 0, ioErr, "fp"},
          {kNone, true, 0, 0, 0, ioErr, ioErr, "fpw"},
      };
  for (const auto& [found, start, specified, byBundle, bySignature, waited, err, steps] : rows) {
    ToldLaunch launch;
    launch.found = found;
    launch.setLaunchIfNotRunning(start);
    launch.specified = specified;
    launch.byBundle = byBundle;
    launch.bySignature = bySignature;
    launch.waited = waited;
    EXPECT_EQ(err, launch.findAndLaunch()) << steps;
    EXPECT_EQ(steps, launch.steps);
  }
}

TEST(Launch, WaysWithoutTheirValueAreTurnedOffAndRetriesBecomeZero) {
  OpenLaunch launch(EmptySpec());
  EXPECT_EQ(0, launch.initParams());
  EXPECT_EQ(2, launch.launchRetrySleepInterval);
  EXPECT_EQ(20, launch.launchRetries);
  EXPECT_EQ(paramErr, launch.find());  // nothing to find it by
  EXPECT_EQ(0, launch.launchRetries);
  EXPECT_EQ(0, launch.waitForLaunch());
  FileSpecType app;
  EXPECT_EQ(procNotFound, launch.getAppFromSpecified(app));
  EXPECT_EQ(procNotFound, launch.getAppFromSignature(app));
  EXPECT_EQ(procNotFound, launch.getAppFromBundleID(app));
  EXPECT_EQ(procNotFound, launch.launch());
  EXPECT_FALSE(app.isValid());

  VLTLaunchSpec spec = EmptySpec();  // switches without what they go by
  spec.launchBySignature = spec.launchByBundleID = spec.findBySignature = spec.findByPortName = 1;
  spec.bundleID = spec.portName = "";
  OpenLaunch masked(spec);
  EXPECT_EQ(0, masked.prepare());
  EXPECT_FALSE(masked.launchBySignature || masked.launchByBundleID || masked.findBySignature ||
               masked.findByPortName);
  masked.setPortName("test.nobody");
  EXPECT_EQ(procNotFound, masked.find());
  EXPECT_EQ(0, masked.launchRetries);  // Meant: 0 from now on, because callers rely on it.
}

TEST(Launch, SettersCountFromTheNextLookUpOn) {
  OpenLaunch launch(PortSpec("test.spec"));
  launch.setPortName("test.early");
  launch.setSignature(FourCC('e', 'a', 'r', 'l'));
  launch.setLaunchIfNotRunning(true);
  EXPECT_EQ(procNotFound, launch.find());
  // Meant: the first look-up replaces an earlier name, because callers rely on it.
  EXPECT_STREQ("test.spec", launch.portName);
  EXPECT_EQ(kSignature, launch.getSignature());
  EXPECT_TRUE(launch.launchIfNotFound);

  launch.findByPortName = false;
  launch.setPortName("test.spec");  // the same: the switch stays
  EXPECT_FALSE(launch.findByPortName);
  launch.setPortName("test.other");
  EXPECT_TRUE(launch.findByPortName);
  launch.setPortName(launch.portName + 5);  // inside the one that it replaces
  EXPECT_STREQ("other", launch.portName);
  EXPECT_TRUE(launch.findByPortName);
  launch.setPortName(launch.portName + 5);
  EXPECT_EQ(nullptr, launch.portName);
  EXPECT_FALSE(launch.findByPortName);
  launch.findByPortName = true;
  launch.setPortName(nullptr);  // the same
  EXPECT_TRUE(launch.findByPortName);
  EXPECT_EQ(paramErr, launch.find());
}

TEST(Launch, TheExecutableIsTheTargetOfItsAliases) {
  ScratchFolder folder;
  const std::string file = folder.File("program");
  folder.Link("first", file);
  folder.Link("dangling", folder.Path("nothing"));
  FSRef ref;
  FSSpec spec, link;
  ASSERT_EQ(0, FSPathMakeRef(reinterpret_cast<const UInt8*>(file.c_str()), &ref, nullptr));
  ASSERT_EQ(0, FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, &spec, nullptr));
  OpenLaunch launch(EmptySpec());
  EXPECT_EQ(paramErr, launch.setExecutable(nullptr));
  ASSERT_EQ(
      0, FSMakeFSSpec(spec.vRefNum, spec.parID, reinterpret_cast<const UInt8*>("\5first"), &link));
  EXPECT_EQ(0, launch.setExecutable(&link));
  EXPECT_EQ(0, launch.prepare());
  FileSpecType app;
  ASSERT_EQ(0, launch.getAppFromSpecified(app));
  char path[1024];
  EXPECT_EQ(0, VLTLaunch::FileSpecToPath(app, path, sizeof path));
  EXPECT_EQ(file, path);
  EXPECT_EQ(procNotFound, launch.findAndLaunchFromSpecified());  // it is not a program
  EXPECT_EQ(pathTooLongErr, VLTLaunch::FileSpecToPath(app, path, 3));
  EXPECT_EQ(paramErr, VLTLaunch::FileSpecToPath(app, nullptr, 3));

  ASSERT_EQ(0, FSMakeFSSpec(spec.vRefNum, spec.parID,
                            reinterpret_cast<const UInt8*>("\x8"
                                                           "dangling"),
                            &link));
  EXPECT_EQ(fnfErr, launch.setExecutable(&link));
  EXPECT_EQ(0, launch.getAppFromSpecified(app));  // as it was
  EXPECT_EQ(fnfErr, VLTLaunch::PathToFileSpec(app, "/nothing/here"));
  EXPECT_TRUE(app.isValid());
  EXPECT_EQ(paramErr, VLTLaunch::PathToFileSpec(app, ""));
}

TEST(Find, FindsAPortByNameOnlyAndKeepsNoRight) {
  const std::string name = UniquePortName();
  EXPECT_EQ(paramErr, VLTLaunch::findPort(""));
  EXPECT_EQ(procNotFound, VLTLaunch::findPort(name.c_str()));
  EXPECT_EQ(procNotFound, VLTLaunch::findPSN(kNobody));
  const size_t rights = HostCountPorts().portNames;
  {
    VLTPortAEMachPortListener listener;
    const auto nothing = [](UInt32, UInt32, const AEDesc*, AEDesc*, void*) { return OSStatus{0}; };
    ASSERT_EQ(0, listener.ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), nothing, nullptr));
    EXPECT_EQ(0, VLTLaunch::waitForPort(name.c_str(), 1, 20));
    // The port does not count if only the signature is to be found.
    VLTLaunchSpec bySignature = PortSpec(name.c_str());
    bySignature.findByPortName = false;
    bySignature.findBySignature = true;
    EXPECT_EQ(procNotFound, OpenLaunch(bySignature).find());
  }
  EXPECT_EQ(rights, HostCountPorts().portNames);
}

}  // namespace
