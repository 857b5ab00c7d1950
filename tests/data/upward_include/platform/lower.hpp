#include "model/higher.hpp"
