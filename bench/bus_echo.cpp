// The reference service of the bus call benchmark: owns "ru.kelvo.vexa.echo" and answers "vexaStatus" with
// true straight from sd-bus, with no binding and no work, so that the caller measures what the bus itself costs.

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <systemd/sd-bus.h>

namespace {

int status(sd_bus_message* call, void* /*userdata*/, sd_bus_error* /*error*/) {
    return sd_bus_reply_method_return(call, "b", 1);
}

const sd_bus_vtable echoVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("vexaStatus", "", "b", status, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int fail(const char* what, int r) {
    std::fprintf(stderr, "vexa_bench_echo: %s: %s\n", what, std::strerror(-r));
    return 1;
}

} // namespace

int main() {
    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) {
        return fail("sd_bus_open_system", r);
    }
    r = sd_bus_add_object_vtable(bus, nullptr, "/ru/kelvo/vexa/echo", "ru.kelvo.vexa.echo", echoVtable, nullptr);
    if (r < 0) {
        return fail("sd_bus_add_object_vtable", r);
    }
    r = sd_bus_request_name(bus, "ru.kelvo.vexa.echo", 0);
    if (r < 0) {
        return fail("sd_bus_request_name", r);
    }
    for (;;) {
        r = sd_bus_process(bus, nullptr);
        if (r < 0) {
            return fail("sd_bus_process", r);
        }
        if (r == 0 && (r = sd_bus_wait(bus, UINT64_MAX)) < 0 && r != -EINTR) {
            return fail("sd_bus_wait", r);
        }
    }
}
