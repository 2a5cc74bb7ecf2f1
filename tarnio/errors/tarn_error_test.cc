#include "tarnio/errors/tarn_error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tarnio/errors/internal/raise.h"
#include "tarnio/errors/last_error.h"

namespace {

// Collects every warning delivered while it lives; restores the default callback at the end.
class WarningRecorder {
 public:
  WarningRecorder() {
    TarnError::set_global_warning_callback(
        [this](const TarnError& warning) { messages.push_back(warning.message()); });
  }
  ~WarningRecorder() { TarnError::set_global_warning_callback({}); }

  std::vector<std::string> messages;
};

TEST(TarnErrorCompose, DefaultConstructedErrorIsSeverityLineThenIndentedMessage) {
  TarnError empty;
  EXPECT_STREQ(empty.what(), "ERROR\n    ");
  EXPECT_STREQ(TarnError()("File too short.").what(), "ERROR\n    File too short.");
  EXPECT_EQ(empty.id(), -1);
}

TEST(TarnErrorCompose, LocationShownOnlyWithFileAndLine) {
  EXPECT_STREQ(TarnError("f", "a.cc", 12)("m").what(),
               "a.cc(12): ERROR\n    in function 'f':\n    m");
  EXPECT_STREQ(TarnError(nullptr, "a.cc", 12)("m").what(), "a.cc(12): ERROR\n    m");
  EXPECT_STREQ(TarnError("f", "a.cc", 0)("m").what(), "ERROR\n    m");
  EXPECT_STREQ(TarnError("f", nullptr, 12)("m").what(), "ERROR\n    m");
}

TEST(TarnErrorCompose, OsErrorLineOnlyForPositiveCodes) {
  errno = ENOENT;
  TarnError with_os;
  with_os("Could not open file.").do_oserr();
  EXPECT_EQ(with_os.oserr_id(), ENOENT);
  EXPECT_EQ(with_os.oserr(), std::strerror(ENOENT));
  EXPECT_EQ(std::string(with_os.what()),
            "ERROR\n    Could not open file.\n    os_error(2): No such file or directory");

  errno = 0;
  TarnError without_os;
  without_os("m").do_oserr();
  EXPECT_EQ(without_os.oserr(), "Unknown system error.");
  EXPECT_STREQ(without_os.what(), "ERROR\n    m");
}

TEST(TarnErrorCompose, WarningSeverity) {
  TarnError warning("f", "w.cc", 3);
  warning("careful").do_warn();
  std::string text = warning.what();
  WarningRecorder recorder;  // swallows the warning when `warning` dies
  EXPECT_EQ(text, "w.cc(3): WARNING\n    in function 'f':\n    careful");
}

TEST(TarnErrorCompose, EachPieceIsCutAtTheFormatBuffer) {
  const std::string long_text(5000, 'x');
  TarnError error;
  error("%s", long_text.c_str());
  EXPECT_EQ(error.message().size(), 4095u);
  // The string form is not formatted and keeps everything.
  error(long_text);
  EXPECT_EQ(error.message().size(), 5000u);
}

TEST(TarnErrorMessage, FormsOfTheCallOperator) {
  TarnError error;
  EXPECT_EQ(error("%d of %s", 3, "four").message(), "3 of four");
  EXPECT_EQ(error(std::string("100% literal")).message(), "100% literal");
  EXPECT_EQ(error(std::wstring(L"\u00b5m \u00c5")).message(), "\u00b5m \u00c5");
  EXPECT_EQ(static_cast<int>(error(42)), 42);
  EXPECT_EQ(error.process(), 42);
}

TEST(TarnErrorCopy, CopiesEverythingButTheThread) {
  TarnError original("f", "x.cc", 7);
  original("m")(5).do_process();
  int copied_thread = 0;
  std::thread([&] {
    TarnError copy(original);
    EXPECT_EQ(copy.function(), "f");
    EXPECT_EQ(copy.file(), "x.cc");
    EXPECT_EQ(copy.line(), 7);
    EXPECT_EQ(copy.message(), "m");
    EXPECT_EQ(copy.id(), 5);
    copied_thread = static_cast<int>(copy.thread());
    TarnError assigned;
    const auto own_thread = assigned.thread();
    assigned = original;
    EXPECT_EQ(assigned.thread(), own_thread);
    EXPECT_EQ(assigned.message(), "m");
  }).join();
  EXPECT_NE(static_cast<std::uint32_t>(copied_thread), original.thread());
}

TEST(LastError, ProcessRecordsIdAndTextAndWhatPointsAtTheSharedText) {
  TarnError first;
  first("first")(11);
  const char* first_text = first.what();
  EXPECT_EQ(tarn_get_last_error(), 11);
  EXPECT_STREQ(tarn_get_last_error_string(), "ERROR\n    first");

  TarnError second;
  second("second")(12);
  second.process();
  EXPECT_STREQ(first_text, "ERROR\n    second");
  EXPECT_EQ(tarn_get_last_error(), 12);
}

TEST(LastError, LongTextStillLeavesEarlierPointersReadable) {
  const char* earlier = TarnError()("short").what();
  TarnError()(std::string(100000, 'y')).process();
  EXPECT_EQ(std::strlen(tarn_get_last_error_string()), 100000u + 10u);
  EXPECT_NE(earlier, nullptr);
  EXPECT_GE(std::strlen(earlier), 0u);  // still readable, whatever it shows
}

TEST(LastError, ProcessFlagComposesOnDestruction) {
  {
    TarnError error;
    error("processed at the end")(3).do_process();
  }
  EXPECT_EQ(tarn_get_last_error(), 3);
  EXPECT_STREQ(tarn_get_last_error_string(), "ERROR\n    processed at the end");
}

TEST(Warnings, DeliveredOnDestructionOnlyToTheCallback) {
  WarningRecorder recorder;
  TarnError()("before").process();
  {
    TarnError warning;
    warning("both flags").do_warn().do_process();
  }
  ASSERT_EQ(recorder.messages, std::vector<std::string>{"both flags"});
  // The callback is the only receiver: the last error is untouched.
  EXPECT_STREQ(tarn_get_last_error_string(), "ERROR\n    before");
}

TEST(Warnings, EmptyCallbackRestoresTheDefaultWhichPrintsToStderr) {
  TarnError::set_global_warning_callback({});
  testing::internal::CaptureStderr();
  tarn_warn("disk almost full", "", "", 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING\n    disk almost full\n");
}

TEST(Warnings, ThrowingCallbackDoesNotEscapeTheDestructor) {
  TarnError::set_global_warning_callback([](const TarnError&) { throw std::runtime_error("x"); });
  EXPECT_NO_THROW(tarn_warn("ignored", nullptr, nullptr, 0));
  TarnError::set_global_warning_callback({});
}

TEST(PlainFunctions, ErrAndLasterrThrowWithLocation) {
  try {
    tarn_err("broken", "fn", "src.cc", 9);
    FAIL();
  } catch (const TarnError& error) {
    EXPECT_EQ(error.id(), -1);
    EXPECT_STREQ(error.what(), "src.cc(9): ERROR\n    in function 'fn':\n    broken");
  }
  try {
    tarn_lasterr("broken", nullptr, nullptr, 0);
    FAIL();
  } catch (const TarnError& error) {
    EXPECT_EQ(error.id(), 1);
    EXPECT_EQ(error.message(), "broken");
  }
}

TEST(PlainFunctions, MessageIsAFormatString) {
  WarningRecorder recorder;
  tarn_warn("50%% done", nullptr, nullptr, 0);
  tarn_warn(nullptr, nullptr, nullptr, 0);
  ASSERT_EQ(recorder.messages, (std::vector<std::string>{"50% done", ""}));
}

TEST(DebugOutput, SilentUnlessTarnDebugIsSet) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process reads the variable anew
  const auto report = [](bool debug) {
    if (debug)
      ::setenv("TARN_DEBUG", "1", 1);
    else
      ::unsetenv("TARN_DEBUG");
    TarnError()("to the debugger").process();
    std::fputs("end", stderr);
    std::exit(0);
  };
  EXPECT_EXIT(report(true), testing::ExitedWithCode(0), "^ERROR\n    to the debugger\nend$");
  EXPECT_EXIT(report(false), testing::ExitedWithCode(0), "^end$");
}

TEST(Raise, ThrowTarnFormatsWithBraces) {
  try {
    Tarn::errors::internal::throw_tarn("Failed reading {} bytes from file: {}", 8,
                                       "File too short.");
    FAIL();
  } catch (const TarnError& error) {
    EXPECT_EQ(error.message(), "Failed reading 8 bytes from file: File too short.");
    EXPECT_EQ(error.line(), 0);
  }
}

}  // namespace
