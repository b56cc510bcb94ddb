// The admission steps.
#include "admission.h"
