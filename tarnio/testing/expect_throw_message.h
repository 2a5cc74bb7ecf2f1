#pragma once

// EXPECT_THROW_MESSAGE(statement, type, text): the statement throws `type` and its message is
// exactly `text`; for a TarnError the message is message(), for other exceptions what().

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <type_traits>

#include "tarnio/errors/tarn_error.h"

namespace Tarn::testing {

template <typename E>
std::string message_of(const E& error) {
  if constexpr (std::is_base_of_v<TarnError, E>) {
    return error.message();
  } else {
    return error.what();
  }
}

}  // namespace Tarn::testing

#define EXPECT_THROW_MESSAGE(statement, type, text)                             \
  do {                                                                          \
    bool tarnio_thrown_ = false;                                                \
    try {                                                                       \
      statement;                                                                \
    } catch (const type& tarnio_error_) {                                       \
      tarnio_thrown_ = true;                                                    \
      EXPECT_EQ(::Tarn::testing::message_of(tarnio_error_), std::string(text)); \
    } catch (const std::exception& tarnio_other_) {                             \
      ADD_FAILURE() << "threw another exception: " << tarnio_other_.what();     \
      tarnio_thrown_ = true;                                                    \
    }                                                                           \
    if (!tarnio_thrown_) ADD_FAILURE() << #statement " did not throw " #type;   \
  } while (false)
