#include "tarnio/errors/tarn_error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tarnio/errors/internal/last_error_state.h"
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

// The TarnError that f throws.
TarnError thrown_by(const std::function<void()>& f) {
  try {
    f();
  } catch (const TarnError& error) {
    return error;
  }
  ADD_FAILURE() << "nothing thrown";
  return TarnError();
}

TEST(TarnErrorCompose, SeverityLineLocationMessageAndOsError) {
  WarningRecorder recorder;  // swallows the warning below
  TarnError warning("f", "w.cc", 3);
  warning("careful").do_warn();
  errno = ENOENT;
  TarnError with_os;
  with_os("Could not open file.").do_oserr();
  EXPECT_EQ(with_os.oserr_id(), ENOENT);
  EXPECT_EQ(with_os.oserr(), std::strerror(ENOENT));
  errno = 0;
  TarnError without_os;
  without_os("m").do_oserr();
  EXPECT_EQ(without_os.oserr(), "Unknown system error.");
  EXPECT_EQ(TarnError().id(), -1);

  // Each text is copied at once: what() points at text shared by all errors.
  const std::pair<std::string, std::string> kTexts[] = {
      {TarnError().what(), "ERROR\n    "},
      {TarnError()("File too short.").what(), "ERROR\n    File too short."},
      {TarnError("f", "a.cc", 12)("m").what(), "a.cc(12): ERROR\n    in function 'f':\n    m"},
      {TarnError(nullptr, "a.cc", 12)("m").what(), "a.cc(12): ERROR\n    m"},
      {TarnError("f", "a.cc", 0)("m").what(), "ERROR\n    m"},
      {TarnError("f", nullptr, 12)("m").what(), "ERROR\n    m"},
      {with_os.what(),
       "ERROR\n    Could not open file.\n    os_error(2): No such file or directory"},
      {without_os.what(), "ERROR\n    m"},
      {warning.what(), "w.cc(3): WARNING\n    in function 'f':\n    careful"}};
  for (const auto& [text, want] : kTexts) EXPECT_EQ(text, want);
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
  {
    TarnError second;
    second("processed at the end")(12).do_process();
  }
  EXPECT_STREQ(first_text, "ERROR\n    processed at the end");
  EXPECT_EQ(tarn_get_last_error(), 12);

  // A text longer than the one buffer is cut, so that the buffer never moves and every pointer
  // handed out shows the latest text.
  TarnError()(std::string(100000, 'y')).process();
  EXPECT_EQ(std::strlen(tarn_get_last_error_string()), Tarn::errors::internal::kLastErrorCapacity);
  EXPECT_EQ(first_text, tarn_get_last_error_string());
}

TEST(Warnings, DeliveredOnDestructionOnlyToTheCallback) {
  WarningRecorder recorder;
  TarnError()("before").process();
  {
    TarnError warning;
    warning("both flags").do_warn().do_process();
  }
  tarn_warn("50%% done", nullptr, nullptr, 0);  // a format string
  tarn_warn(nullptr, nullptr, nullptr, 0);
  EXPECT_EQ(recorder.messages, (std::vector<std::string>{"both flags", "50% done", ""}));
  // The callback is the only receiver: the last error is untouched.
  EXPECT_STREQ(tarn_get_last_error_string(), "ERROR\n    before");
}

TEST(Warnings, ThrowingCallbackIsContainedAndAnEmptyOneRestoresPrintingToStderr) {
  TarnError::set_global_warning_callback([](const TarnError&) { throw std::runtime_error("x"); });
  EXPECT_NO_THROW(tarn_warn("ignored", nullptr, nullptr, 0));
  TarnError::set_global_warning_callback({});
  testing::internal::CaptureStderr();
  tarn_warn("disk almost full", "", "", 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARNING\n    disk almost full\n");
}

TEST(PlainFunctions, ErrLasterrAndThrowTarnThrow) {
  const TarnError err = thrown_by([] { tarn_err("broken", "fn", "src.cc", 9); });
  EXPECT_EQ(err.id(), -1);
  EXPECT_STREQ(err.what(), "src.cc(9): ERROR\n    in function 'fn':\n    broken");
  const TarnError lasterr = thrown_by([] { tarn_lasterr("broken", nullptr, nullptr, 0); });
  EXPECT_EQ(lasterr.id(), 1);
  EXPECT_EQ(lasterr.message(), "broken");
  const TarnError raised = thrown_by([] {
    Tarn::errors::internal::throw_tarn("Failed reading {} bytes from file: {}", 8,
                                       "File too short.");
  });
  EXPECT_EQ(raised.message(), "Failed reading 8 bytes from file: File too short.");
  EXPECT_EQ(raised.line(), 0);
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

}  // namespace
