// Everything a host needs.
#pragma once

#include "corvane/channel.h"
#include "corvane/eventmask.h"
#include "corvane/exception.h"
#include "corvane/module.h"
#include "corvane/refcnt.h"
#include "corvane/socketoptions.h"
#include "corvane/uri.h"
