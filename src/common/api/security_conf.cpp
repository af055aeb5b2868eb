// The security maps: values of configuration keys under the names that the RPC transport uses.

#include "common/api/base_api_util.h"
#include "common/log/logging.h"
#include "common/util/system.h"

namespace vyn::common {

namespace {

using SecurityMap = std::map<std::string, const std::string>;

constexpr long kDefaultAuthTimeoutMs = 60000;

/// An entry of a security map and the configuration key that gives its value.
struct Entry {
  const char* name;
  const char* key;
};

constexpr Entry kServiceTls[] = {
    {"tls.ca.cert.path", "vyn.tessel.rpc.tls.ca.cert.path"},
    {"tls.crl.path", "vyn.tessel.rpc.tls.crl.path"},
    {"plx.ksf.primary.path", "vyn.tessel.plx.ksf.primary.path"},
    {"plx.ksf.standby.path", "vyn.tessel.plx.ksf.standby.path"},
    {"plx.ksf.backup.path", "vyn.tessel.plx.ksf.backup.path"},
};

constexpr Entry kSdkTls[] = {
    {"tls.ca.cert.path", "vyn.tessel.rpc.tls.sdk.ca.cert.path"},
    {"tls.crl.path", "vyn.tessel.rpc.tls.sdk.crl.path"},
    {"plx.ksf.primary.path", "vyn.tessel.sdk.plx.ksf.primary.path"},
    {"plx.ksf.standby.path", "vyn.tessel.sdk.plx.ksf.standby.path"},
    {"plx.ksf.backup.path", "vyn.tessel.sdk.plx.ksf.backup.path"},
};

constexpr Entry kServerTls[] = {
    {"plx.ksf.primary.path", "vyn.tessel.plx.ksf.primary.path"},
    {"plx.ksf.standby.path", "vyn.tessel.plx.ksf.standby.path"},
    {"plx.ksf.backup.path", "vyn.tessel.plx.ksf.backup.path"},
    {"tls.key.encrypted", "vyn.tessel.rpc.tls.key.encrypted"},
    {"tls.cert.path", "vyn.tessel.rpc.tls.cert.path"},
    {"tls.key.path", "vyn.tessel.rpc.tls.key.path"},
    {"tls.key.pass.path", "vyn.tessel.rpc.tls.key.pass.path"},
};

constexpr Entry kClient[] = {
    {"auth.type", "vyn.tessel.rpc.auth.type"},
    {"author.file.encrypted", "vyn.tessel.rpc.author.file.encrypted"},
    {"auth.kerb.keytab.encrypted", "vyn.tessel.rpc.auth.kerb.keytab.encrypted"},
};

constexpr Entry kServer[] = {
    {"auth.kerb.keytab", "vyn.tessel.rpc.auth.kerb.server.keytab"},
    {"auth.kerb.keytab.encrypted", "vyn.tessel.rpc.auth.kerb.keytab.encrypted"},
    {"auth.type", "vyn.tessel.rpc.auth.type"},
    {"author.type", "vyn.tessel.rpc.author.type"},
    {"author.file.path", "vyn.tessel.rpc.author.file.path"},
    {"author.file.encrypted", "vyn.tessel.rpc.author.file.encrypted"},
};

std::string Text(const Ref<Configuration>& conf, const char* key) { return conf->GetString(key, ""); }

template <std::size_t Count>
void Fill(const Ref<Configuration>& conf, SecurityMap& map, const Entry (&entries)[Count]) {
  for (const Entry& entry : entries) {
    map.emplace(entry.name, Text(conf, entry.key));
  }
}

/// "<name>/<host>@<domain>"
std::string Principal(const Ref<Configuration>& conf, const char* nameKey, const std::string& host) {
  return Text(conf, nameKey) + "/" + host + "@" + Text(conf, "vyn.tessel.rpc.auth.domain");
}

}  // namespace

void BaseApiUtil::GetPlxTlsConf4Client(Ref<Configuration>& conf, SecurityMap& map, bool sdk) {
  Fill(conf, map, sdk ? kSdkTls : kServiceTls);
}

void BaseApiUtil::GetPlxTlsConf4Server(Ref<Configuration>& conf, SecurityMap& map) {
  Fill(conf, map, kServerTls);
}

unsigned int BaseApiUtil::GetSecurityConf4Client(SecurityMap& map, const std::string& serverHost, bool sdk) {
  Ref<Configuration> mConf = Configuration::GetInstance();
  VYN_CHECK_POINTER(mConf);
  GetPlxTlsConf4Client(mConf, map, sdk);
  Fill(mConf, map, kClient);
  map.emplace("rpc.client.auth.timeout",
              std::to_string(mConf->GetLong("vyn.tessel.rpc.client.auth.timeout", kDefaultAuthTimeoutMs)));
  map.emplace("auth.kerb.server.principal",
              Principal(mConf, "vyn.tessel.rpc.auth.server.principle.name", serverHost));
  map.emplace("auth.kerb.keytab", Text(mConf, sdk ? "vyn.tessel.rpc.auth.kerb.client.keytab"
                                                  : "vyn.tessel.rpc.auth.kerb.server.keytab"));
  map.emplace("auth.kerb.client.principal", Principal(mConf,
                                                      sdk ? "vyn.tessel.rpc.auth.client.principle.name"
                                                          : "vyn.tessel.rpc.auth.server.principle.name",
                                                      VynGetHostname()));
  return VYN_OK;
}

unsigned int BaseApiUtil::GetSecurityConf4Server(SecurityMap& map) {
  Ref<Configuration> mConf = Configuration::GetInstance();
  VYN_CHECK_POINTER(mConf);
  GetPlxTlsConf4Server(mConf, map);
  map.emplace("auth.kerb.server.principal",
              Principal(mConf, "vyn.tessel.rpc.auth.server.principle.name", VynGetHostname()));
  Fill(mConf, map, kServer);
  return VYN_OK;
}

}  // namespace vyn::common
