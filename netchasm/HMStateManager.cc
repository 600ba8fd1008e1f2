#include "netchasm/HMStateManager.h"
#include "netchasm/Engine.h"

HMStateManager::HMStateManager()
      : engine_{ std::make_unique< netchasm::Engine >() },
        workQueue_{ *engine_ } {}

HMStateManager::~HMStateManager() = default;

void HMStateManager::registerLog( std::shared_ptr< HMLogBase > log ) {
   engine_->logIs( std::move( log ) );
}

void HMStateManager::registerStorageObserver( std::shared_ptr< HMStorageObserver > observer ) {
   engine_->observerIs( std::move( observer ) );
}

bool HMStateManager::healthCheck( std::string masterConfigPath, HM_LOG_LEVEL level, bool startChecking ) {
   return engine_->start( masterConfigPath, level, startChecking );
}

bool HMStateManager::reloadDaemonConfigs( std::string masterConfigPath ) {
   return engine_->reload( masterConfigPath );
}

void HMStateManager::dropHosts() {
   engine_->dropHosts();
}

bool HMStateManager::addStaticDNSAddress(
      const std::string & hostName, const std::set< HMIPAddress > & addresses ) {
   return engine_->addAddresses( hostName, addresses );
}

bool HMStateManager::removeStaticDNSAddress(
      const std::string & hostName, const std::set< HMIPAddress > & addresses ) {
   return engine_->removeAddresses( hostName, addresses );
}

bool HMStateManager::setHostMark( const std::string & hostGroupName, const std::string & hostName,
      const HMIPAddress & address, int mark ) {
   return engine_->setMark( hostGroupName, hostName, address, mark );
}

bool HMStateManager::removeHostMark( const std::string & hostGroupName, const std::string & hostName,
      const HMIPAddress & address, int mark ) {
   return engine_->removeMark( hostGroupName, hostName, address, mark );
}

bool HMStateManager::probe(
      const std::string & hostGroupName, const std::string & hostName, HMProbeDone done ) {
   return engine_->probe( hostGroupName, hostName, std::move( done ) );
}

void HMStateManager::setLogLevel( HM_LOG_LEVEL level ) {
   engine_->logLevelIs( level );
}

HMWorkQueue & HMStateManager::workQueue() {
   return workQueue_;
}

void HMWorkQueue::getProbeDelay( std::vector< unsigned long > & histogram ) const {
   histogram = engine_.probeDelays();
}

void HMWorkQueue::clearProbeDelay() {
   engine_.clearProbeDelays();
}
