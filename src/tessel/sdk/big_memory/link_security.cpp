#include "tessel/sdk/big_memory/link_security.h"

#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/config/env_helper.h"
#include "common/log/logging.h"
#include "common/util/file_util.h"
#include "platform/openssl_dl/openssl_dl.h"
#include "platform/tls/client_setting.h"

namespace vyn::tessel {

void SecureLinks(const std::string& home) {
  using common::Configuration;
  common::Ref<Configuration> conf = Configuration::GetInstance();
  if (conf == nullptr) {
    const common::Ref<common::EnvHelper> environment = common::EnvHelper::GetInstance();
    const std::string place = home.empty() && environment != nullptr ? environment->GetHome() : home;
    const std::string path = place + "/conf/vyn.conf";
    if (place.empty() || !common::FileUtil::IsPathExist(path)) {
      return;
    }
    conf = Configuration::FromFile(path);
  }
  tls::ClientSetting setting;
  setting.report = [](const std::string& text) { VYN_LOG_ERROR(text); };
  setting.enabled = conf == nullptr || conf->GetBool("vyn.tessel.rpc.enableTLS", true);
  if (conf != nullptr && setting.enabled) {
    common::BaseApiUtil::GetPlxTlsConf4Client(conf, setting.security, true);
    if (openssl_dl::Get() == nullptr) {
      static_cast<void>(common::BaseApiUtil::SetOpensslDLPath(conf));  // if this fails, the first link fails
    }
  }
  tls::SetClientSetting(std::move(setting));
}

}  // namespace vyn::tessel
