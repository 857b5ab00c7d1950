#include "model/first.hpp"
#include "model/second.hpp"
