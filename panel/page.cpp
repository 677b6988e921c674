#include "panel/page.h"

#include <httplib.h>

#include "panel/assets.h"

namespace panel {
namespace {

/// Nothing but this program's own files runs, and nobody else's page may frame or use it.
void SetSafetyHeaders(httplib::Response& out) {
    out.set_header("Content-Security-Policy",
                   "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                   "connect-src 'self'; form-action 'none'; base-uri 'none'; "
                   "frame-ancestors 'none'; require-trusted-types-for 'script'");
    out.set_header("X-Content-Type-Options", "nosniff");
    out.set_header("X-Frame-Options", "DENY");
    out.set_header("Referrer-Policy", "no-referrer");
    out.set_header("Cross-Origin-Opener-Policy", "same-origin");
    out.set_header("Cross-Origin-Resource-Policy", "same-origin");
    out.set_header("Permissions-Policy", "camera=(), geolocation=(), microphone=()");
}

void SendAsset(const Asset& asset, const httplib::Request& in, httplib::Response& out) {
    SetSafetyHeaders(out);
    out.set_header("Cache-Control", "no-cache");  // may be kept, and is asked for every time
    out.set_header("ETag", asset.tag);
    if (in.get_header_value("If-None-Match") == asset.tag) {
        out.status = 304;
        return;
    }
    out.set_content(reinterpret_cast<const char*>(asset.bytes), asset.size, asset.type);
}

}  // namespace

void Page::Register(httplib::Server& server) {
    for (std::size_t i = 0; i < kAssetCount; ++i) {
        const Asset& asset = kAssets[i];
        server.Get(asset.path, [&asset](const httplib::Request& in, httplib::Response& out) {
            SendAsset(asset, in, out);
        });
    }
    const auto answer = [this](const httplib::Request& in, httplib::Response& out) {
        SetSafetyHeaders(out);
        out.set_header("Cache-Control", "no-store");
        api_.Answer(in, out);
    };
    server.Get("/api/.*", answer);
    server.Post("/api/.*", answer);
}

}  // namespace panel
