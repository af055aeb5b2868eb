#include "common/config/configuration_catalogue.h"

namespace vyn::common::catalogue {

namespace {

/// A key without a default that the features of `flags` need.
constexpr CatalogueKey Needed(const char* key, unsigned int flags, const char* unit, const char* readers,
                              const char* meaning) {
  return {key, Str(""), NotEmpty(), flags, unit, readers, meaning};
}

// key, default, rule, when it is checked, unit, readers, meaning

constexpr CatalogueKey kSecurityTotalKeys[] = {
    {"vyn.tessel.rpc.enableAuthentication", Bool(true), kNoRule, kUnchecked, "",
     "metadata client, tuning client, node-server client, RPC pools, vynd",
     "Whether both ends of a connection prove who they are. No mechanism exists yet: when on, both refuse."},
    {"vyn.tessel.rpc.enableAuthorization", Bool(true), kNoRule, kUnchecked, "", "vynd",
     "Whether the settings for authorization must be complete. This release checks no rights."},
    {"vyn.tessel.rpc.enableTLS", Bool(true), kNoRule, kUnchecked, "",
     "metadata client, tuning client, node-server client, RPC pools, big memory, vynd",
     "Whether remote calls and links of the memory fabric are encrypted with TLS 1.3."},
    {"vyn.zookeeper.security.enable", Bool(true), kNoRule, kUnchecked, "", "ZooKeeper adapter, vynd",
     "Whether the session with ZooKeeper is secured."},
    {"vyn.zookeeper.security.isKeytabEncrypt", Bool(true), kNoRule, kUnchecked, "", "ZooKeeper adapter",
     "Whether the keytabs for ZooKeeper are encrypted."},
    Needed("vyn.tessel.rpc.openssl.path", kAnySecurity, "library", "SDK start-up, process set-up",
           "libssl of OpenSSL 3, also needed with TLS off. The loader searches for a name without a slash."),
    Needed("vyn.tessel.rpc.crypto.path", kAnySecurity, "library", "SDK start-up, process set-up",
           "libcrypto of OpenSSL 3, found in the same way."),
    Needed("vyn.zookeeper.security.certs", kZookeeperSecurity, "ca,certificate,key,password",
           "ZooKeeper adapter", "Certificates, key and password of a service for TLS to ZooKeeper."),
    Needed("vyn.zookeeper.sdk.security.certs", kZookeeperSecurity, "ca,certificate,key,password",
           "ZooKeeper adapter", "The same for an engine process."),
};

constexpr CatalogueKey kSecurityKeys[] = {
    Needed("vyn.tessel.rpc.tls.key.encrypted", kTls, "true/false", "security maps",
           "Whether the server's private key is encrypted."),
    Needed("vyn.tessel.rpc.tls.ca.cert.path", kTls, "file", "security maps",
           "Certificates of the authorities that a service trusts."),
    Needed("vyn.tessel.rpc.tls.sdk.ca.cert.path", kTls, "file", "security maps",
           "The same for an engine process."),
    Needed("vyn.tessel.rpc.tls.cert.path", kTls, "file", "security maps",
           "Certificate of the server, with its chain."),
    Needed("vyn.tessel.rpc.tls.key.path", kTls, "file", "security maps", "Private key of the server."),
    Needed("vyn.tessel.rpc.tls.key.pass.path", kTls, "file", "security maps",
           "File with the password of that key in its first line."),
    {"vyn.tessel.rpc.tls.crl.path", Str(""), kNoRule, kUnchecked, "file", "security maps",
     "Revoked certificates that a service refuses."},
    {"vyn.tessel.rpc.tls.sdk.crl.path", Str(""), kNoRule, kUnchecked, "file", "security maps",
     "The same for an engine process."},
    {"vyn.daemon.expireChecker.period", Int(86400), IntRange(0, kMaxInt), kAnySecurity, "s", "-",
     "Interval between two checks whether a certificate expires soon."},
    {"vyn.daemon.expireChecker.lead", Int(7), IntRange(7, 180), kAnySecurity, "days", "-",
     "How long before it expires a certificate is reported."},
    Needed("vyn.tessel.plx.ksf.primary.path", kAnySecurity, "file", "security maps, ZooKeeper adapter",
           "The primary key store of a service. Passed on; no program opens it."),
    Needed("vyn.tessel.plx.ksf.standby.path", kAnySecurity, "file", "security maps, ZooKeeper adapter",
           "The standby key store of a service. Passed on; no program opens it."),
    Needed("vyn.tessel.plx.ksf.backup.path", kAnySecurity, "file", "security maps, ZooKeeper adapter",
           "The backup key store of a service. Passed on; no program opens it."),
    Needed("vyn.tessel.sdk.plx.ksf.primary.path", kAnySecurity, "file", "security maps, ZooKeeper adapter",
           "The primary key store of an engine process. Passed on; no program opens it."),
    Needed("vyn.tessel.sdk.plx.ksf.standby.path", kAnySecurity, "file", "security maps, ZooKeeper adapter",
           "The standby key store of an engine process. Passed on; no program opens it."),
    Needed("vyn.tessel.sdk.plx.ksf.backup.path", kAnySecurity, "file", "security maps, ZooKeeper adapter",
           "The backup key store of an engine process. Passed on; no program opens it."),
    Needed("vyn.tessel.rpc.auth.type", kAuthentication, "", "security maps",
           "Mechanism of the authentication."),
    Needed("vyn.tessel.rpc.auth.kerb.server.keytab", kAuthentication, "file", "security maps",
           "Keytab of a service."),
    Needed("vyn.tessel.rpc.auth.kerb.client.keytab", kAuthentication, "file",
           "security maps, node-server client", "Keytab of an engine process."),
    Needed("vyn.tessel.rpc.auth.kerb.keytab.encrypted", kAuthentication, "true/false", "security maps",
           "Whether the keytabs are encrypted."),
    Needed("vyn.tessel.rpc.auth.domain", kAuthentication, "", "security maps, node-server client",
           "Realm of all principals."),
    Needed("vyn.tessel.rpc.auth.server.principle.name", kAuthentication, "", "security maps",
           "First part of a service's principal; host name and realm follow."),
    Needed("vyn.tessel.rpc.auth.client.principle.name", kAuthentication, "",
           "security maps, node-server client", "First part of an engine process's principal."),
    Needed("vyn.tessel.rpc.auth.meta.principle.mapping", kAuthentication, "address:host,...",
           "metadata client, tuning client",
           "Host names in the principals of the metadata nodes, by address."),
    Needed("vyn.tessel.rpc.author.file.path", kAuthorization, "file", "security maps",
           "File with the rights of the callers."),
    Needed("vyn.tessel.rpc.author.type", kAuthorization, "", "security maps",
           "Mechanism of the authorization."),
    Needed("vyn.tessel.rpc.author.file.encrypted", kAuthorization, "true/false", "security maps",
           "Whether the file of rights is encrypted."),
    Needed("vyn.zookeeper.security.principle.name", kZookeeperSecurity, "", "ZooKeeper adapter",
           "First part of ZooKeeper's own principal."),
    Needed("vyn.zookeeper.security.principle.hostname", kZookeeperSecurity, "", "ZooKeeper adapter",
           "Host name in ZooKeeper's own principal."),
    Needed("vyn.zookeeper.security.strategy", kZookeeperSecurity, "", "ZooKeeper adapter",
           "How the session with ZooKeeper is secured."),
    Needed("vyn.zookeeper.sdk.security.client.principle", kZookeeperSecurity, "", "ZooKeeper adapter",
           "Principal of an engine process towards ZooKeeper."),
    Needed("vyn.zookeeper.sdk.security.client.keytab", kZookeeperSecurity, "file", "ZooKeeper adapter",
           "Keytab of an engine process towards ZooKeeper."),
    Needed("vyn.zookeeper.security.client.principle", kZookeeperSecurity, "", "ZooKeeper adapter",
           "Principal of a service towards ZooKeeper."),
    Needed("vyn.zookeeper.security.client.keytab", kZookeeperSecurity, "file", "ZooKeeper adapter",
           "Keytab of a service towards ZooKeeper."),
    {"vyn.tessel.server.data.isolation", Bool(true), kNoRule, kUnchecked, "", "-",
     "Whether the data of different users is kept apart on a node."},
};

}  // namespace

constinit const CatalogueGroup kSecurityTotal{"Security switches", kSecurityTotalKeys};
constinit const CatalogueGroup kSecurity{"Security settings", kSecurityKeys};

}  // namespace vyn::common::catalogue
