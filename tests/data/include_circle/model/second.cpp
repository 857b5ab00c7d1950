#include "model/second.hpp"

#include "model/first.hpp"
