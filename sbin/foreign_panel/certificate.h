/// Certificates with their keys, as texts in PEM form.
#pragma once

#include <string>
#include <vector>

#include "sbin/foreign_panel/converter.h"

namespace foreign_panel {

/// Adds the certificate `name` of these domains to the document: `pem` holds a private key, the
/// certificate and others of its chain, in any order. False when there is no certificate in it;
/// that, and a missing key, is reported as lost.
bool AddCertificate(Job& job, const std::string& name, const std::vector<std::string>& domains,
                    const std::string& pem);

}  // namespace foreign_panel
