// Owns the table of commands: what each is called with, says, and is done by.
#include "command_line.h"

namespace kelotlsctl {

namespace {

// clang-format off
constexpr ArgumentRow kDryRun  = {"--dry-run", "Say what would be done, write nothing", &Arguments::dry_run};
constexpr ArgumentRow kService = {"SERVICE", "The name that the service joined with", nullptr, &Arguments::service, true, true};
constexpr ArgumentRow kServices = {"SERVICE", "Services, or patterns with * and ?; else all", nullptr, nullptr, false, true, &Arguments::services};
constexpr ArgumentRow kRefuseLoss = {"--refuse-loss", "Write nothing unless no recorded client is lost", &Arguments::refuse_loss};
constexpr ArgumentRow kTimeout = {"--reload-timeout", "Seconds that a reloader may take; else 60", nullptr, &Arguments::reload_timeout};
constexpr ArgumentRow kConfirm = {"--confirm", "Taken back unless confirmed within this time: 90, 5m, 2h", nullptr, &Arguments::confirm};
constexpr ArgumentRow kFile    = {"FILE", "A registration; - for the standard input", nullptr, &Arguments::file, true, true};
// clang-format on

template <Places places>
Places always(const Arguments&) {
  return places;
}

/// A preview of a file has nothing to do with the framework.
Places of_render(const Arguments& arguments) {
  return arguments.preview.empty() ? kFrameworkPlaces : kNoPlaces;
}

/// Without a new address it only shows.
Places of_address(const Arguments& arguments) {
  return arguments.address.empty() && !arguments.remove ? kNoPlaces : kFrameworkPlaces;
}

/// What looks only writes nothing.
Places of_clients(const Arguments& arguments) {
  const bool writes = arguments.subject == "record" || arguments.subject == "import" ||
                      arguments.subject == "forget";
  return writes ? kFrameworkPlaces : kNoPlaces;
}

Places of_default(const Arguments& arguments) {
  return arguments.level.empty() ? kNoPlaces : kFrameworkPlaces;
}

}  // namespace

const std::vector<CommandRow>& commands() {
  // clang-format off
  static const std::vector<CommandRow> table = {
    {"list", "Show services (without a command, this)",
     {{"--level", "Only those at this level; default: those that follow it", nullptr, &Arguments::level},
      {"--state", "Only those in this state, as --terse names it", nullptr, &Arguments::state},
      {"--terse", "For scripts: service, stored level, effective level, state, between tabs", &Arguments::terse},
      {"--names", "Only the names, one on each line", &Arguments::names},
      {"--findings", "Also what check finds wrong; each server is asked once", &Arguments::findings},
      {"--files", "Look at files alone, and ask no running server", &Arguments::files}},
     "0, 1, 2, 4", "kelotlsctl list --state pending-reload",
     list_services, print_services, nullptr},
    {"status", "Show on one screen what is in force, pending, and failed last",
     {{"--files", "Look at files alone, and ask no running server", &Arguments::files}},
     "0, 1, 4", "kelotlsctl status",
     show_status, print_status, nullptr},
    {"show", "Show one service and its files", {kService},
     "0, 1, 4, 10", "kelotlsctl show nginx",
     show_service, print_service, nullptr},
    {"get", "Show a service's level", {kService},
     "0, 1, 4, 10", "kelotlsctl get nginx",
     get_level, print_level_of_service, nullptr},
    {"levels", "Show what each level asks for", {},
     "0, 1", "kelotlsctl levels",
     show_levels, print_levels, nullptr},
    {"explain", "Show what this machine gives of a level, and why",
     {{"LEVEL|SERVICE", "A level, or a service and its level", nullptr, &Arguments::subject, true, true}},
     "0, 1, 3, 4, 10", "kelotlsctl explain modern",
     explain, print_explained, nullptr},
    {"probe", "Find out what a service's server offers, and compare",
     {kService,
      {"--connect", "HOST:PORT or unix:PATH of a running server", nullptr, &Arguments::address},
      {"--starttls", "The protocol that is spoken before TLS", nullptr, &Arguments::starttls},
      {"--servername", "The name to ask for; else the host", nullptr, &Arguments::server_name},
      {"--timeout", "Seconds for one hello; else 10", nullptr, &Arguments::timeout},
      {"--deadline", "Seconds for everything; else 300", nullptr, &Arguments::deadline},
      {"--context", "Ask the library's context, not the server whose address is kept", &Arguments::context}},
     "0, 1, 2, 3, 4, 6, 10", "kelotlsctl probe nginx --connect localhost:443",
     probe_service, print_probed, nullptr},
    {"check", "Look for whatever is wrong",
     {kServices,
      {"--all", "Show every pending service, however many there are", &Arguments::all},
      {"--plugin", "One line and exit status 0 to 3, as monitoring plugins have them", &Arguments::plugin}},
     "0, 1, 2, 3, 10", "kelotlsctl check",
     check_framework, print_findings, nullptr},
    {"metrics", "Show for Prometheus what is in force, pending and wrong",
     {{"--survey", "Ask every running server whose address is kept now, and keep what is seen", &Arguments::survey},
      {"--textfile", "Write the text to this file, for node_exporter", nullptr, &Arguments::textfile}},
     "0, 1, 4", "kelotlsctl metrics --survey",
     show_metrics, print_metrics, nullptr},
    {"history", "Show what was changed, by whom and why",
     {{"SERVICE", "Only what concerns this service", nullptr, &Arguments::service}},
     "0, 1", "kelotlsctl history nginx",
     show_history, print_history, nullptr},

    {"set", "Set the levels of services",
     {kDryRun,
      {"SERVICE", "Services, or patterns with * and ?, and last the LEVEL: modern, intermediate, old, default, or 0 to 3", nullptr, nullptr, true, true, &Arguments::services},
      {"--all", "All services", &Arguments::all},
      {"--apply", "Render, reload and probe; undo what fails", &Arguments::apply}, kConfirm,
      {"--until", "The date at which the level ends; needs --reason", nullptr, &Arguments::until},
      {"--then", "The level after the date; else the one before it", nullptr, &Arguments::then}, kRefuseLoss, kTimeout},
     "0, 1, 2, 3, 4, 5, 6, 10", "kelotlsctl set nginx modern --apply",
     set_level, print_set, always<kFrameworkPlaces>},
    {"default", "Show or set the default level",
     {kDryRun,
      {"LEVEL", "modern, intermediate, old, or 1 to 3", nullptr, &Arguments::level},
      {"--apply", "Render, reload and probe who follows it; undo what fails", &Arguments::apply}, kConfirm, kRefuseLoss, kTimeout},
     "0, 1, 2, 3, 4, 5, 6", "kelotlsctl default intermediate --apply",
     default_level, print_default, of_default},

    {"confirm", "Keep the change that waits to be confirmed", {},
     "0, 1, 4", "kelotlsctl confirm",
     confirm, print_kept, always<kFrameworkPlaces>},
    {"revert", "Take the change that waits to be confirmed back at once", {},
     "0, 1, 4", "kelotlsctl revert",
     revert, print_reverted, always<kFrameworkPlaces>},
    {"undo", "Take back the last changes of levels",
     {kDryRun, {"N", "How many; else one", nullptr, &Arguments::count}, kTimeout},
     "0, 1, 2, 3, 4, 5, 6", "kelotlsctl undo",
     undo, print_undone, always<kFrameworkPlaces>},
    {"redo", "Take back the last undo",
     {kDryRun, {"N", "How many; else one", nullptr, &Arguments::count}, kTimeout},
     "0, 1, 2, 3, 4, 5, 6", "kelotlsctl redo",
     redo, print_undone, always<kFrameworkPlaces>},
    {"settle", "Take back what was not confirmed in time, end levels whose date has come",
     {{"--wait", "Go on until nothing is left to wait for", &Arguments::wait},
      {"--before-services", "The servers have not started: run no reloader", &Arguments::before_services}},
     "0, 1, 3, 4, 5, 6", "kelotlsctl settle",
     settle_due, print_settled, always<kFrameworkPlaces>},

    {"validate", "Name every fault of a registration", {kFile},
     "0, 1, 3", "kelotlsctl validate registration.json",
     validate_registration, print_validated, nullptr},
    {"catalogue", "Show the registrations that packages bring",
     {{"DIRECTORY", "Where they are; else /usr/share/kelotls/services", nullptr, &Arguments::file}},
     "0, 1", "kelotlsctl catalogue",
     show_catalogue, print_catalogue, nullptr},
    {"join", "Make services join",
     {kDryRun, {"--replace", "Take the place of what joined with another template or reloader", &Arguments::replace}, kConfirm, kFile},
     "0, 1, 2, 3, 4, 5, 6", "kelotlsctl join registration.json",
     join_services, print_joined, always<kFrameworkPlaces>},
    {"leave", "Make services leave", {kDryRun, kConfirm, kFile},
     "0, 1, 2, 4, 10", "kelotlsctl leave registration.json",
     leave_services, print_left, always<kFrameworkPlaces>},
    {"address", "Show or keep the address at which a running server is asked",
     {kDryRun, kService,
      {"ADDRESS", "HOST:PORT, [IPV6]:PORT or unix:PATH; without one, the address is shown", nullptr, &Arguments::address},
      {"--starttls", "What is spoken before TLS: smtp, imap, pop3, ftp, ldap, postgres, mysql, sieve, xmpp, nntp", nullptr, &Arguments::starttls},
      {"--servername", "The name to ask for", nullptr, &Arguments::server_name},
      {"--remove", "Keep no address any more", &Arguments::remove}},
     "0, 1, 2, 4, 10", "kelotlsctl address mail localhost:25 --starttls smtp",
     keep_address, print_address, of_address},
    {"clients", "Record who connects to services, and judge who a level would lose",
     {{"ACTION", "record SERVICE..., import SERVICE FILE, show SERVICE, judge SERVICE LEVEL, or forget SERVICE", nullptr, &Arguments::subject, true},
      {"WORD", "Services, and what the action takes beside them", nullptr, nullptr, true, true, &Arguments::services},
      {"--for", "How long to record, as 90s, 30m, 24h or 7d; else until it is interrupted", nullptr, &Arguments::duration},
      {"--interface", "The network interface to watch; else any", nullptr, &Arguments::interface},
      {"--port", "The port of the service, where no address is kept", nullptr, &Arguments::port},
      {"--no-addresses", "Keep no client's address", &Arguments::no_addresses},
      {"--prefix", "Keep of an IPv4 address these first bits alone", nullptr, &Arguments::prefix},
      {"--prefix6", "The same of an IPv6 address; 64 where --prefix is given", nullptr, &Arguments::prefix6},
      {"--limit", "How many bytes the record of a service may take; else 10485760", nullptr, &Arguments::limit},
      {"--certificate", "Judge with this, as rsa:2048 or ecdsa:P-256; else as the server shows", nullptr, &Arguments::certificate}},
     "0, 1, 2, 3, 4, 6, 10", "kelotlsctl clients record nginx --for 24h",
     manage_clients, print_recorded, of_clients},

    {"regen", "Bring the data store in line with the descriptors", {kDryRun},
     "0, 1, 4", "kelotlsctl regen --dry-run",
     regenerate, print_regenerated, always<kDescribedPlaces>},
    {"render", "Render templates",
     {kDryRun, kServices,
      {"--check", "Show what would change, with the differences", &Arguments::check},
      {"--preview", "FILE or SERVICE: show what its template gives at each level", nullptr, &Arguments::preview},
      {"--level", "Show it at this level alone", nullptr, &Arguments::level}},
     "0, 1, 2, 3, 4, 10", "kelotlsctl render nginx --check",
     render_templates, print_rendered, of_render},
    {"reload", "Run reloaders", {kDryRun, kServices, kTimeout},
     "0, 1, 2, 4, 5, 10", "kelotlsctl reload nginx --reload-timeout 30",
     reload, print_reloaded, always<kFrameworkPlaces>},
    {"apply", "Render, reload and probe", {kDryRun, kServices, kConfirm, kTimeout},
     "0, 1, 2, 3, 4, 5, 6, 10", "kelotlsctl apply nginx",
     apply_levels, print_applied, always<kFrameworkPlaces>},

    {"backup", "Save all levels",
     {kDryRun, {"FILE", "A new file; a dated one in this directory unless named; - for the standard output", nullptr, &Arguments::file}},
     "0, 1, 4", "kelotlsctl backup levels.json",
     backup, print_backup, always<kFrameworkPlaces>},
    {"restore", "Take levels from a backup",
     {kDryRun, kConfirm, {"FILE", "The backup; - for the standard input", nullptr, &Arguments::file, true, true}},
     "0, 1, 2, 3, 4, 5, 6", "kelotlsctl restore levels.json",
     restore, print_restored, always<kFrameworkPlaces>},
    {"init", "Make the first data store of a fresh appliance",
     {kDryRun, {"--default", "The default level; else intermediate", nullptr, &Arguments::level}},
     "0, 1, 2", "kelotlsctl init --default modern",
     initialise, print_initialised, always<kFrameworkPlaces>},
    {"recover", "Get back from a data store that is missing or broken",
     {kDryRun,
      {"--from", "A backup to take the levels from; - for the standard input", nullptr, &Arguments::file},
      {"--default", "The default level", nullptr, &Arguments::level}},
     "0, 1, 2", "kelotlsctl recover --from levels.json",
     recover, print_recovered, always<kDescribedPlaces>},
    {"dh", "Make the files of Diffie-Hellman parameters",
     {kDryRun, {"--force", "Replace files that are in order, too", &Arguments::force}},
     "0, 1", "kelotlsctl dh --dry-run",
     make_dh_files, print_dh_files, always<kDhPlaces>},
  };
  // clang-format on
  return table;
}

}  // namespace kelotlsctl
