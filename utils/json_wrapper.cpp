#include "utils/json_wrapper.h"

#include <new>
#include <stdexcept>

#include "platform/cjson_string_item.h"
#include "utils/malloc_text.h"

namespace zelo {

JSONWrapper::JSONWrapper() : root(cJSON_CreateObject(), cJSON_Delete) {
  if (!root) throw std::bad_alloc();
}

JSONWrapper::JSONWrapper(const std::string& text) : root(cJSON_Parse(text.c_str()), cJSON_Delete) {
  if (!root) throw std::runtime_error("invalid json " + text);
}

std::string JSONWrapper::getString(const std::string& name) const {
  const char* text = cJSON_GetStringItem(root.get(), name.c_str(), nullptr);
  if (text == nullptr) throw std::runtime_error("key " + name + " not found");
  return text;
}

void JSONWrapper::addString(const std::string& name, const std::string& value) {
  std::unique_ptr<cJSON, decltype(&cJSON_Delete)> item(cJSON_CreateString(value.c_str()), cJSON_Delete);
  if (cJSON_AddItemToObject(root.get(), name.c_str(), item.get()) != 0) (void)item.release();
}

std::string JSONWrapper::toString() const {
  const MallocText text(cJSON_PrintUnformatted(root.get()));
  return text ? text.get() : "";
}

}  // namespace zelo
