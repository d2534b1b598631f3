// The values a host gives for the variables of a logging configuration: a "{%name%}" in any
// attribute or text of the logging element is replaced by the value of name before the
// element is read. Names match exactly, case included.
#pragma once

#include "zq/tl/hashmap.h"
#include "zq/webkeel/string.h"

namespace kiv {

using ReplacementMap = tl::hash_map<String, String, String::Hash>;

}  // namespace kiv
