// Application control: the functions with which a service reads and answers a request.

#include "app_control.h"

#include <cstring>

#include "request.h"

static constexpr int DONE = 0;
static constexpr int INVALID_PARAMETER = -1;
static constexpr int ALREADY_ANSWERED = -2;

int app_control_get_operation(app_control_handle request, char **operation)
{
    if (request == nullptr || operation == nullptr)
        return INVALID_PARAMETER;
    *operation = request->operation ? strdup(request->operation->c_str()) : nullptr;
    return DONE;
}

int app_control_create(app_control_handle *handle)
{
    if (handle == nullptr)
        return INVALID_PARAMETER;
    *handle = new app_control;
    return DONE;
}

int app_control_reply_to_launch_request(app_control_handle reply, app_control_handle request, int result)
{
    if (reply == nullptr || request == nullptr)
        return INVALID_PARAMETER;
    if (request->result)
        return ALREADY_ANSWERED;
    request->result = result;
    return DONE;
}

int app_control_destroy(app_control_handle handle)
{
    if (handle == nullptr)
        return INVALID_PARAMETER;
    delete handle;
    return DONE;
}
