// Uses the installed library as a user would: exits 0 when the element types, the errors, the
// JSON values, the property tree and in-memory stacks answer as documented.

#include <tarnio/arrays/data_type.h>
#include <tarnio/errors/last_error.h>
#include <tarnio/errors/tarn_error.h>
#include <tarnio/json/read_write.h>
#include <tarnio/json/xml.h>
#include <tarnio/props/json.h>
#include <tarnio/props/prop.h>
#include <tarnio/props/xml.h>
#include <tarnio/stack_factory/create_stack.h>
#include <tarnio/version.h>

#include <cstdio>
#include <cstring>

int main() {
  if (tarn_dt_get_size(tarn_dt_from_name("double")) != 8) return 1;
  try {
    tarn_err("consumer check", nullptr, nullptr, 0);
  } catch (const TarnError& error) {
    if (error.message() != "consumer check") return 2;
    error.process();
  }
  if (std::strcmp(tarn_get_last_error_string(), "ERROR\n    consumer check") != 0) return 3;
  const JSON::Value tags = JSON::read(R"({"Image": [{"ID": "Image:0"}]})");
  if (JSON::from_xml(JSON::to_xml(tags)) != tags) return 4;
  TProp params;
  params["camera.roi"] = TProp::array(Tarn::dt::uint16, {4});
  params["channels{1}"] = TProp("mCherry");
  if (tarn_import_xml(tarn_export_xml(params)) != params) return 5;
  if (tarn_import_json(tarn_export_json(params)) != params) return 6;
  auto stack = Tarn::create_stack(Tarn::dt::uint16, {4, 3});
  stack->data<std::uint16_t>()[5] = 7;
  stack->set_tag("params", params);
  float element = 0;
  stack->copy_out(Tarn::arrays::Region({1, 1}, {1, 1}), Tarn::dt::single, &element);
  if (element != 7.0f || stack->tags().size() != 1) return 7;
  std::printf("tarnio %s\n", TARNIO_VERSION_STRING);
  return 0;
}
