/// The panel's document of a user: what it takes to make him again, here or on another machine.
#pragma once

#include <string>

#include "vel/vel_xml.h"

#include "panel/store.h"

namespace panel {

constexpr char kSmallerEdition[] = "1";
constexpr char kLargerEdition[] = "3";

/// Fills `doc` with the user's document in the form of this panel's edition: his settings, his
/// databases, and whatever RestoreUserData kept. No password of a log-in here and no token.
void AppendUserData(Store& store, const User& user, vel_xml::XmlNode doc);

/// Takes over what a document in the form of this panel's edition says of the user: folders,
/// patterns, plan, databases (as wishes, see Store). Root, account and password stay. What this
/// panel has no use for (mailboxes, zones, certificates, ...) is kept and given back by
/// AppendUserData. Of data from another panel the settings are only kept: folders and patterns
/// there mean nothing here. `answer` gets one <warning> for each thing that was left out. Throws
/// vel_err::Error("value",
/// ...) for a document that would be too large for an answer; nothing is changed then.
void RestoreUserData(Store& store, const User& user, const vel_xml::Xml& data,
                     vel_xml::XmlNode answer);

/// Appends to `doc` an <account> for each account of the kept document that has rights in this
/// database: its name, hosts, password (as "form" says) and rights.
void AppendAccounts(Store& store, const Database& database, const std::string& type,
                    vel_xml::XmlNode doc);

}  // namespace panel
