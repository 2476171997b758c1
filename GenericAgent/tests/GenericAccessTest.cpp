#include "GenericAgent/GenericAgentSnmp.h"
