#include "FakeCloudService.h"

#include "CloudServiceContract.h"

namespace almanor::test {
namespace {

INSTANTIATE_TEST_SUITE_P(Fake, CloudServiceContract,
                         testing::Values(CloudServiceFactory{
                             "fake", [] { return std::make_shared<FakeCloudService>(); }}),
                         CloudServiceFactory::name);

} // namespace
} // namespace almanor::test
