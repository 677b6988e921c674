/// The panel's document of a user on its way back.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "vel/vel_xml.h"

#include "sbin/backup2_system/database.h"

namespace backup2_system {

/// What the way back asks of the panel; errors of the panel pass through.
struct PanelAnswers {
    Own own;
    std::function<Access(const std::string& server)> server;  ///< how to log in there
};

/// Takes out of the document (in the form of this panel's edition) every database and every account
/// that stands on a server here already and is not this user's, so that people are told at once and
/// the panel does not keep what is nobody's wish. What comes to stand there later, RestoreDatabase
/// leaves alone. One text for each thing that was taken out, and for each server that is not there.
std::vector<std::string> TakeOutStrangers(const vel_xml::Xml& document, const PanelAnswers& panel);

}  // namespace backup2_system
