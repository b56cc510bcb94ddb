#include "session_command.h"
