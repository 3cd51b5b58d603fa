#pragma once
// Text resources compiled into the program (see cmake/resources.cmake).

#include <string_view>

namespace quill::resources {

std::string_view landing_html();
std::string_view docs_html();
std::string_view openapi_yaml();  // with CR LF line ends

}  // namespace quill::resources
