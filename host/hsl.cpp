#include "Lumora32.h"
