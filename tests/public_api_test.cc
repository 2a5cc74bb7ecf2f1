// The shared library as a loader sees it: the plain functions under their undecorated names,
// the internals hidden.

#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

class SharedLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = ::dlopen(TARNIO_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << ::dlerror();
  }
  void TearDown() override {
    if (handle_ != nullptr) ::dlclose(handle_);
  }
  void* symbol(const char* name) { return ::dlsym(handle_, name); }

 private:
  void* handle_ = nullptr;
};

TEST_F(SharedLibrary, ExportsThePlainFunctionsUndecorated) {
  for (const char* name :
       {"tarn_dt_get_size", "tarn_dt_get_name", "tarn_dt_from_name", "tarn_dt_convert",
        "tarn_dt_convert_with_strides", "tarn_err", "tarn_lasterr", "tarn_warn",
        "tarn_get_last_error", "tarn_get_last_error_string"}) {
    EXPECT_NE(symbol(name), nullptr) << name;
  }
  using GetSize = std::size_t (*)(int);
  auto get_size = reinterpret_cast<GetSize>(symbol("tarn_dt_get_size"));
  ASSERT_NE(get_size, nullptr);
  EXPECT_EQ(get_size(0x40000080), 16u);
}

TEST_F(SharedLibrary, HidesInternals) {
  // Tarn::errors::internal::os_error_text(int)
  EXPECT_EQ(symbol("_ZN4Tarn6errors8internal13os_error_textEi"), nullptr);
  EXPECT_NE(symbol("_ZTI9TarnError"), nullptr);  // the exception type is shared with callers
}

}  // namespace
