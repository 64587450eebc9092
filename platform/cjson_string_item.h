#pragma once

struct cJSON;

/// The platform's addition to cJSON.

extern "C" {

/// The text of the string member `name` of `object`; letter case matters. The tree owns it. `fallback` if
/// there is no such member or it is not a string.
const char* cJSON_GetStringItem(const cJSON* object, const char* name, const char* fallback);

}  // extern "C"
