#include "platform/cjson_string_item.h"

#include <cjson/cJSON.h>

const char* cJSON_GetStringItem(const cJSON* object, const char* name, const char* fallback) {
  if (!cJSON_IsObject(object)) return fallback;
  const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(item) && item->valuestring != nullptr ? item->valuestring : fallback;
}
