#include "common/config/configuration_catalogue.h"

namespace vyn::common::catalogue {

namespace {

// key, default, rule, when it is checked, unit, readers, meaning

constexpr CatalogueKey kHigherWatermark = {
    "vyn.tessel.server.swap.threshold.higher_watermark", Int(60), IntRange(0, 100), kAlways, "percent", "-",
    "Use of the pool at which swapping out starts."};
constexpr CatalogueKey kLowerWatermark = {
    "vyn.tessel.server.swap.threshold.lower_watermark", Int(20), IntRange(0, 100), kAlways, "percent", "-",
    "Use of the pool at which swapping out ends."};
constexpr CatalogueKey kSwapPath = {
    "vyn.tessel.server.swap.path",     Str(""), NotEmpty(), kAlways, "directory", "-",
    "Where swapped memory is written."};
constexpr CatalogueKey kFreeWatermark = {
    "vyn.tessel.server.swap.threshold.free_water_mater", Int(80), IntRange(0, 100), kAlways, "percent", "-",
    "Use of the swap space at which it is freed."};

constexpr CatalogueKey kGeneralKeys[] = {
    {"vyn.log.dir", Str("${VYN_HOME}/logs/"), kNoRule, kUnchecked, "directory", "vynd",
     "Where the process log and the audit log are written."},
    {"vyn.workers.dir", Str("${VYN_HOME}/conf/vyn_node_list"), kNoRule, kUnchecked, "file", "-",
     "List of the nodes of the installation."},
    {"vyn.log.level", Str("INFO"), kNoRule, kUnchecked, "level", "SDK start-up, vynd, vynctl",
     "Lowest level that is logged: TRACE, DEBUG, INFO, WARN, ERROR or CRITICAL."},
    {"vyn.log.fileSize", Int(20), kNoRule, kUnchecked, "MiB", "vynd", "Size at which a log file rotates."},
    {"vyn.log.rotation.file.num", Int(10), kNoRule, kUnchecked, "files", "vynd",
     "Rotated log files that are kept."},
    {"vyn.kv.levelDB.path", Str("${VYN_HOME}/leveldb"), NotEmpty(), kAlways, "directory", "-",
     "Where a key-value store keeps its files."},
    {"vyn.kv.levelDB.write_buffer_size", Int(67108864), IntRange(4194304, 1073741824), kAlways, "bytes", "-",
     "Memory that a key-value store fills before it writes a file."},
    {"vyn.kv.levelDB.max_file_size", Int(2097152), IntRange(2097152, 134217728), kAlways, "bytes", "-",
     "Size of one file of a key-value store."},
    {"vyn.zookeeper.server.url", Str(""), NotEmpty(), kAlways, "host:port,...",
     "ZooKeeper adapter, vynd, vynctl", "The servers of the ZooKeeper ensemble."},
    {"vyn.zookeeper.connect.timeout", Int(30), IntRange(0, kMaxInt), kAlways, "s", "ZooKeeper adapter",
     "How long the first connection to ZooKeeper may take."},
    {"vyn.zookeeper.session.timeout", Int(30000), IntRange(10000, kMaxInt), kAlways, "ms",
     "SDK leader discovery, vynd, vynctl",
     "How long ZooKeeper keeps the session of a process that is silent."},
    {"vyn.ucx.tcp.keepintvl", Str("60s"), kNoRule, kUnchecked, "duration", "RpcSetter",
     "Interval of TCP keep-alive probes, under the protocol tcp; empty leaves it to the system."},
};

constexpr CatalogueKey kTesselKeys[] = {
    {"vyn.tessel.enabled", Bool(true), kNoRule, kUnchecked, "", "-",
     "Whether the data services are wanted on this installation."},
    {"vyn.tessel.rpc.shuffle_server.port", Int(3891), IntRange(3000, 65535), kAlways, "TCP port",
     "node-server client, vynd", "Port of the node server, on 127.0.0.1 of every node."},
    {"vyn.tessel.rpc.shuffle_meta.port", Int(3892), IntRange(3000, 65535), kAlways, "TCP port",
     "metadata client, vynd", "Port of the metadata service, on the leader's address."},
    {"vyn.tessel.rpc.manager.port", Int(3899), IntRange(3000, 65535), kAlways, "TCP port", "vynd",
     "Port for links: from other nodes and from processes outside the fabric."},
    {"vyn.tessel.server.max_local_blob_capacity", Long(25769803776), LongRange(25769803776, kMaxLong),
     kAlways, "bytes", "-", "Memory that blobs may take on a node."},
    {"vyn.tessel.meta.node_lists", Str(""), NotEmpty(), kAlways, "address,...", "vynd",
     "Addresses of the nodes that may lead the metadata service, without ports; no other node ever leads."},
    {"vyn.tessel.server.aggregator.core.thread.num", Int(4), IntRange(1, 20), kAlways, "threads", "-",
     "Threads that aggregate blobs on a node."},
    kHigherWatermark,
    kLowerWatermark,
    kSwapPath,
    kFreeWatermark,
    {"vyn.tessel.rpc.transport.protocol", Str("rc"), OneOf("rc||rc_v||tcp"), kAlways, "", "RpcSetter",
     "Transport of all remote calls. Only tcp works; rc and rc_v name RDMA."},
    {"vyn.tessel.rpc.transport.devices", Str(""), kNoRule, kUnchecked, "device,...", "RpcSetter",
     "Network devices to use, whatever the IP filter says: interfaces under tcp, device:port under RDMA."},
    {"vyn.tessel.rpc.transport.devices.path", Str("/sys/class/infiniband/"), kNoRule, kUnchecked, "directory",
     "RpcSetter", "Where the system lists its RDMA devices. Ends in a slash."},
    {"vyn.tessel.rpc.transport.tcp.port.range", Str("60000-61000"), RangeText(40000, 61000, kNotEmpty),
     kAlways, "port-port", "RpcSetter", "Local ports of outgoing connections, under the protocol tcp."},
    {"vyn.tessel.rpc.transport.ipfilter", Str(""), kNoRule, kUnchecked, "address/prefix,...", "RpcSetter",
     "Networks whose interfaces are used when no devices are given; at most 1024 characters."},
    {"vyn.tessel.shuffle.profile.level", Int(0), IntRange(0, 2), kAlways, "level", "-",
     "Time counters in the log: 0 off, 1 the whole call, 2 its stages too."},
    {"vyn.tessel.rpc.shuffle_meta.worker.thread.group", Str("1,3,3"), ListOf(3, 1, 16, kNotEmpty), kAlways,
     "threads", "-", "Worker threads of the metadata service, by group."},
    {"vyn.tessel.rpc.shuffle_meta.worker.thread.cpuset", Str(""), RangeText(0, 256, kMayBeEmpty), kAlways,
     "cpu-cpu", "-", "Processors of those worker threads."},
    {"vyn.tessel.rpc.shuffle_meta.eventMgr.thread.cpuset", Str(""), RangeText(0, 256, kMayBeEmpty), kAlways,
     "cpu-cpu", "-", "Processors of the metadata service's event threads."},
};

constexpr CatalogueKey kTimeoutKeys[] = {
    {"vyn.tessel.rpc.shuffle_server.timeout", Long(300000), LongRange(0, kMaxLong), kAlways, "ms",
     "node-server client", "Has no effect: no call to the node server uses it."},
    {"vyn.tessel.rpc.shuffle_meta.timeout", Long(240000), LongRange(0, kMaxLong), kAlways, "ms",
     "SDK start-up", "Time limit of a call of the SDK to the metadata service."},
    {"vyn.tessel.rpc.client.auth.timeout", Long(60000), LongRange(0, kMaxLong), kAlways, "ms",
     "security maps",
     "Time limit of the authentication of a connection. Passed on, and not used by this release."},
    {"vyn.tessel.rpc.local_blob.get.timeout", Long(150000), LongRange(0, kMaxLong), kAlways, "ms",
     "node-server client", "Time limit of getting a local blob."},
    {"vyn.tessel.rpc.local_blob.commit.timeout", Long(150000), LongRange(0, kMaxLong), kAlways, "ms",
     "node-server client", "Time limit of committing a local blob."},
};

constexpr CatalogueKey kBroadcastKeys[] = {
    {"vyn.tessel.broadcast.bt.percent", Int(10), IntRange(0, 100), kAlways, "percent", "-",
     "Share of a broadcast variable's readers that fetch from each other."},
    {"vyn.tessel.broadcast.variable.create.timeout", Long(600000), LongRange(-1, kMaxLong), kAlways, "ms",
     "node-server client", "Time limit of creating blocks; -1 is no limit."},
    {"vyn.tessel.broadcast.variable.fetch.timeout", Long(600000), LongRange(-1, kMaxLong), kAlways, "ms",
     "node-server client", "Time limit of fetching blocks; -1 is no limit."},
};

constexpr CatalogueKey kWaterMarkKeys[] = {
    kHigherWatermark,
    kLowerWatermark,
    kFreeWatermark,
    kSwapPath,
};

constexpr CatalogueKey kOrvaneTuningKeys[] = {
    {"vyn.tuning.enabled", Bool(true), kNoRule, kUnchecked, "", "-",
     "Whether the tuning service is wanted on this installation."},
    {"vyn.tuning.history.persist.type", Str("local"), OneOf("kv||local"), kAlways, "", "-",
     "Where the history of runs is kept: in a key-value store or in local files."},
    {"vyn.tuning.history.persist.path", Str("${VYN_HOME}/history"), kNoRule, kUnchecked, "directory", "-",
     "Where history files are written."},
    {"vyn.tuning.history.file.max.number", Int(5), IntRange(1, 5), kAlways, "files", "-",
     "History files that are kept."},
    {"vyn.tuning.history.file.read.number", Int(2), IntRange(1, 2), kAlways, "files", "-",
     "History files that are read at start-up."},
    {"vyn.tuning.rpc.server.port", Int(3893), IntRange(3000, 65535), kAlways, "TCP port", "tuning client",
     "Port of the tuning service."},
    {"vyn.tuning.rpc.timeout", Int(5000), IntRange(0, kMaxInt), kAlways, "ms", "-",
     "Time limit of a call to the tuning service."},
};

}  // namespace

constinit const CatalogueGroup kGeneral{"General", kGeneralKeys};
constinit const CatalogueGroup kTessel{"Data services", kTesselKeys};
constinit const CatalogueGroup kTimeout{"Time limits of remote calls", kTimeoutKeys};
constinit const CatalogueGroup kBroadcast{"Broadcast variables", kBroadcastKeys};
constinit const CatalogueGroup kWaterMark{"Water marks", kWaterMarkKeys};
constinit const CatalogueGroup kOrvaneTuning{"Tuning service", kOrvaneTuningKeys};

}  // namespace vyn::common::catalogue
