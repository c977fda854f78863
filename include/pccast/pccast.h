/* pccast.h - everything that a host component includes. */
#ifndef PCCAST_PCCAST_H
#define PCCAST_PCCAST_H

#include <pccast/castinfo.h>
#include <pccast/commander.h>
#include <pccast/msginfo.h>
#include <pccast/plugin.h>
#include <pccast/view.h>

#endif
