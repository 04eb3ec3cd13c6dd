#include "FakeCloudService.h"

#include "CloudServiceContract.h"

namespace almanor::test {
namespace {

INSTANTIATE_TEST_SUITE_P(
    Fake, CloudServiceContract,
    testing::Values(CloudServiceFactory{
        "fake", [] { return std::make_shared<FakeCloudService>(); },
        [](CloudService& s) { return dynamic_cast<FakeCloudService&>(s).requests(); },
        [](CloudService& s) { return dynamic_cast<FakeCloudService&>(s).bodiesFetched(); }}),
    CloudServiceFactory::name);

} // namespace
} // namespace almanor::test
