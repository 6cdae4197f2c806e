/*
 * AtSmsTool.h - the modem conversation and SMS subcommands (cmd_atsms.cpp),
 * listed in the tables of cmd_modem.cpp and cmd_sms.cpp.
 */
#ifndef VEKTOOL_ATSMS_H
#define VEKTOOL_ATSMS_H

#include <string>
#include "VekTool.h"

namespace atsms {

int modem_at(const vektool::Args& a);
int sms_send(const vektool::Args& a);
int sms_list(const vektool::Args& a);
int sms_decode(const vektool::Args& a);

/* s as a JSON string, quotes included. */
std::string json_text(const std::string& s);

/* The options they share. */
#define ATSMS_PORT_OPTIONS                                                                       \
    {"--baud", nullptr, "N", "serial rate (default 115200)"},                                    \
        {"--timeout", nullptr, "MS", "each command's time-out (default: per command, 5 s to 3 min)"}

} // namespace atsms

#endif /* VEKTOOL_ATSMS_H */
