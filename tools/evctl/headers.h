/**
 * @file
 * The large headers that most sources of evctl include, parsed once.
 */
#include "common/cli.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <vector>
