#include "services/common/zookeeper_io.h"

#include "platform/zk_helper/zk_helper.h"

#include <cstring>

namespace vyn::services::zookeeper {

namespace {

int Length(const std::string& value) { return static_cast<int>(value.size()); }

}  // namespace

int Exists(const std::string& path, Stat* stat) {
  return DoDlZooExists(VynGetZkHandle(), path.c_str(), 0, stat);
}

int Get(const std::string& path, std::string& value, Stat* stat) {
  // Most values are short. For a longer one the first read gives its length, and a second read fetches it.
  Stat own{};
  int room = 4096;
  for (;;) {
    value.resize(static_cast<std::size_t>(room));
    int length = room;
    const int result = DoDlZooGet(VynGetZkHandle(), path.c_str(), 0, value.data(), &length, &own);
    if (result != ZOK) {
      value.clear();
      return result;
    }
    if (own.dataLength <= room) {
      value.resize(static_cast<std::size_t>(length < 0 ? 0 : length));
      break;
    }
    if (own.dataLength > kMaxValue) {
      value.clear();
      return ZMARSHALLINGERROR;
    }
    room = own.dataLength;
  }
  if (stat != nullptr) {
    *stat = own;
  }
  return ZOK;
}

int Children(const std::string& path, std::vector<std::string>& names) {
  return Children(path, names, nullptr, nullptr);
}

int Children(const std::string& path, std::vector<std::string>& names, watcher_fn watcher, void* context) {
  String_vector children{};
  const int result = watcher == nullptr
                         ? DoDlZooGetChildren(VynGetZkHandle(), path.c_str(), 0, &children)
                         : DoDlZooWgetChildren(VynGetZkHandle(), path.c_str(), watcher, context, &children);
  if (result == ZOK) {
    names.assign(children.data, children.data + children.count);
  }
  DoDlDeallocateStringVector(&children);
  return result;
}

int Create(const std::string& path, const std::string& value, bool ephemeral) {
  return DoDlZooCreate(VynGetZkHandle(), path.c_str(), value.data(), Length(value), &ZOO_OPEN_ACL_UNSAFE,
                       ephemeral ? ZOO_EPHEMERAL : 0, nullptr, 0);
}

int Ensure(const std::string& path, const std::string& value) {
  const int result = Create(path, value);
  return result == ZNODEEXISTS ? ZOK : result;
}

int Set(const std::string& path, const std::string& value, int version) {
  return DoDlZooSet(VynGetZkHandle(), path.c_str(), value.data(), Length(value), version);
}

int Delete(const std::string& path, int version) {
  return DoDlZooDelete(VynGetZkHandle(), path.c_str(), version);
}

int DeleteTree(const std::string& path) {
  std::vector<std::string> names;
  const int listed = Children(path, names);
  if (listed != ZOK) {
    return listed == ZNONODE ? ZOK : listed;
  }
  for (const std::string& name : names) {
    if (const int result = DeleteTree(path + "/" + name); result != ZOK) {
      return result;
    }
  }
  const int result = Delete(path);
  return result == ZNONODE ? ZOK : result;
}

bool IsOwn(const Stat& stat) {
  const clientid_t id = DoDlZooClientId(VynGetZkHandle());
  return id.client_id != 0 && stat.ephemeralOwner == id.client_id;
}

bool IsUncertain(int result) {
  return result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT || result == ZINVALIDSTATE ||
         result == ZSESSIONEXPIRED || result == ZCLOSING;
}

std::string ResultText(int result) {
  std::string text = zerror(result);
  const char* message = VynZookeeperGetLastMessage();
  if (message != nullptr && *message != '\0' && text != message) {
    text += std::string(" (") + message + ")";
  }
  return text;
}

struct Transaction::Step {
  enum class Kind { kCheck, kCreate, kSet, kDelete };

  Kind kind;
  std::string path;
  std::string value;
  int version = -1;
};

Transaction::Transaction() = default;
Transaction::~Transaction() = default;

Transaction& Transaction::Check(const std::string& path, int version) {
  mSteps.push_back(std::make_unique<Step>(Step{Step::Kind::kCheck, path, {}, version}));
  return *this;
}

Transaction& Transaction::Create(const std::string& path, std::string value) {
  mSteps.push_back(std::make_unique<Step>(Step{Step::Kind::kCreate, path, std::move(value), -1}));
  return *this;
}

Transaction& Transaction::Set(const std::string& path, std::string value) {
  mSteps.push_back(std::make_unique<Step>(Step{Step::Kind::kSet, path, std::move(value), -1}));
  return *this;
}

Transaction& Transaction::Delete(const std::string& path) {
  mSteps.push_back(std::make_unique<Step>(Step{Step::Kind::kDelete, path, {}, -1}));
  return *this;
}

std::size_t Transaction::Size() const { return mSteps.size(); }

int Transaction::Commit() {
  std::vector<zoo_op_t> operations(mSteps.size());
  for (std::size_t i = 0; i < mSteps.size(); ++i) {
    const Step& step = *mSteps[i];
    zoo_op_t* target = &operations[i];
    switch (step.kind) {
      case Step::Kind::kCheck:
        zoo_check_op_init(target, step.path.c_str(), step.version);
        break;
      case Step::Kind::kCreate:
        zoo_create_op_init(target, step.path.c_str(), step.value.data(), Length(step.value),
                           &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
        break;
      case Step::Kind::kSet:
        zoo_set_op_init(target, step.path.c_str(), step.value.data(), Length(step.value), -1, nullptr);
        break;
      case Step::Kind::kDelete:
        zoo_delete_op_init(target, step.path.c_str(), -1);
        break;
    }
  }
  return DoDlZooMulti(VynGetZkHandle(), static_cast<int>(operations.size()), operations.data());
}

}  // namespace vyn::services::zookeeper
