#include "http_server.h"
#include "log.h"

namespace alpaca {

HttpResponse answerSafely(const HttpServer::Handler& handle, const HttpRequest& request)
{
    try {
        return handle(request);
    } catch (const std::exception& e) {
        logWarn(std::string("internal error answering ") + request.method + " " + request.path + ": " + e.what());
    } catch (...) {
        logWarn("internal error answering " + request.method + " " + request.path);
    }
    return HttpResponse::text(500, "internal error");
}

}  // namespace alpaca
