#pragma once
#include "model/second.hpp"
