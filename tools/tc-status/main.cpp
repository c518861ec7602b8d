// tc-status: what the running service counts, per device, for a person at a
// shell (a table) or a script (--json); or the serial links' state lines (--links).

#include <dbus/dbus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/json/json_text.h"
#include "tools/tc-status/status_table.h"

namespace {

const char* const kDefaultAddress = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
const char* const kService = "iot.gateway.transparentchannel";
const char* const kPath = "/iot/gateway/transparentchannel";
const char* const kMethod = "channel_statistics";
const char* const kLinksMethod = "serial_port_connect_status";
constexpr int kCallTimeoutMs = 5000;

const char* const kUsage =
    "usage: tc-status [--json | --links] [--watch SECONDS] [--address ADDRESS]\n"
    "\n"
    "Shows what the transparent-channel service counts for each device: serial\n"
    "links (state, bytes and frames each way, connection attempts, drops and why\n"
    "the last one happened, last keep-alive), LoRa device files (uplinks written\n"
    "and refused, downlinks queued, sent and dropped, queue depth) and the node\n"
    "service's last RF and ABP answers.  It asks the service's method\n"
    "\"channel_statistics\" on the gateway bus.\n"
    "\n"
    "  --json             print the service's JSON as it comes, for scripts\n"
    "  --links            print, as it comes, the service's one line per serial link\n"
    "                     (\"serial_port_connect_status\", colours included)\n"
    "  --watch SECONDS    ask again every SECONDS until interrupted\n"
    "  --address ADDRESS  bus address (default unix:path=/tmp/var/run/mbusd/mbusd_socket)\n"
    "  --help             this text\n"
    "\n"
    "Colours are used only when standard output is a terminal.  Exit status 0 when\n"
    "the service answered, 1 when it could not be asked.\n";

// The string `method` returns, or false with the reason on standard error.
bool ask(const std::string& address, const char* method, std::string& json) {
  DBusError error;
  dbus_error_init(&error);
  DBusConnection* bus = dbus_connection_open_private(address.c_str(), &error);
  if (bus && !dbus_bus_register(bus, &error)) {
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    bus = nullptr;
  }
  if (!bus) {
    fprintf(stderr, "tc-status: cannot connect to the bus at %s: %s\n", address.c_str(), error.message);
    dbus_error_free(&error);
    return false;
  }
  DBusMessage* call = dbus_message_new_method_call(kService, kPath, kService, method);
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(bus, call, kCallTimeoutMs, &error);
  dbus_message_unref(call);
  const char* text = nullptr;
  bool ok = reply && dbus_message_get_args(reply, &error, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  if (ok) {
    json = text;
  } else {
    fprintf(stderr, "tc-status: %s did not answer %s: %s\n", kService, method,
            error.message ? error.message : "no answer");
  }
  dbus_error_free(&error);
  if (reply) dbus_message_unref(reply);
  dbus_connection_close(bus);
  dbus_connection_unref(bus);
  return ok;
}

bool show(const std::string& address, bool as_json, bool links, bool colour) {
  std::string json;
  if (!ask(address, links ? kLinksMethod : kMethod, json)) return false;
  if (links) {
    fputs(json.c_str(), stdout);
  } else if (as_json) {
    printf("%s\n", json.c_str());
  } else {
    Json::Value statistics;
    if (!Zentrova::Iot::Platform::string_to_json(json, statistics) || !statistics.isObject()) {
      fprintf(stderr, "tc-status: the service's answer is not a JSON object: %s\n", json.c_str());
      return false;
    }
    fputs(Zentrova::Iot::Tools::CStatusTable(colour).render(statistics).c_str(), stdout);
  }
  fflush(stdout);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string address = kDefaultAddress;
  bool as_json = false, links = false;
  long watch = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--json") {
      as_json = true;
    } else if (arg == "--links") {
      links = true;
    } else if (arg == "--watch" && i + 1 < argc) {
      char* end = nullptr;
      watch = strtol(argv[++i], &end, 10);
      if (*end != '\0' || watch <= 0) {
        fprintf(stderr, "tc-status: --watch takes a whole number of seconds above 0\n");
        return 2;
      }
    } else if (arg == "--address" && i + 1 < argc) {
      address = argv[++i];
    } else {
      fprintf(stderr, "tc-status: unknown argument %s\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  if (watch == 0) return show(address, as_json, links, terminal) ? 0 : 1;
  for (;;) {
    // On a terminal each round replaces the last one.
    if (terminal && !as_json && !links) fputs("\033[H\033[2J", stdout);
    show(address, as_json, links, terminal);
    if (!terminal && !as_json && !links) putchar('\n');
    sleep(static_cast<unsigned>(watch));
  }
}
