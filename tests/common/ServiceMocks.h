#pragma once

#include "cups/CupsInterface.h"
#include "cups/CupsRequestHandler.h"
#include "support/SystemInterface.h"
#include "support/SystemLogger.h"

#include <gmock/gmock.h>

namespace Kestrel::Test {

using namespace Kestrel::Private;

class MockCupsRequestHandler : public CupsRequestHandler {
public:
    MOCK_METHOD(void, connect, (), (override));
    MOCK_METHOD(void, connectRemote, (std::string_view, int), (override));
    MOCK_METHOD(void, prepareRequest, (std::string, ipp_op_t), (override));
    MOCK_METHOD(void, newRequest, (ipp_op_t), (override));
    MOCK_METHOD(void, addString, (ipp_tag_t, ipp_tag_t, std::string_view, std::string_view), (override));
    MOCK_METHOD(void, addInteger, (ipp_tag_t, ipp_tag_t, std::string_view, int), (override));
    MOCK_METHOD(void, addBoolean, (ipp_tag_t, std::string_view, bool), (override));
    MOCK_METHOD(void, addStrings, (ipp_tag_t, ipp_tag_t, std::string_view, const std::unordered_set<std::string>&),
                (override));
    MOCK_METHOD(void, executeAdminRequest, (), (override));
    MOCK_METHOD(void, executePrintRequest, (), (override));
    MOCK_METHOD(void, executePrintFileRequest, (int), (override));
    MOCK_METHOD(void, releaseResponse, (), (override));
    MOCK_METHOD(int, getInteger, (std::string_view), (override));
    MOCK_METHOD(AttributeMap, getAttributes, (const std::unordered_set<std::string>&), (override));
};

class MockCupsInterface : public CupsInterface {
public:
    MOCK_METHOD(bool, destinationExists, (std::string_view), (override));
    MOCK_METHOD(DeviceMap, getDevices, (), (override));
    MOCK_METHOD(bool, isStopped, (std::string_view), (override));
    MOCK_METHOD(void, resume, (std::string_view), (override));
};

class MockSystemInterface : public SystemInterface {
public:
    MOCK_METHOD(bool, userExists, (const std::string&), (override));
    MOCK_METHOD(bool, fileExists, (const std::string&), (override));
    MOCK_METHOD(Document, openDocument, (const CallerCredentials&, const std::string&), (override));
    MOCK_METHOD(Document, copyDocument, (const CallerCredentials&, const std::string&, const std::string&),
                (override));
    MOCK_METHOD(bool, documentExists, (const CallerCredentials&, const Document&), (override));
    MOCK_METHOD(void, removeDocument, (const CallerCredentials&, const Document&), (override));
};

class MockSystemLogger : public SystemLogger {
public:
    MOCK_METHOD(void, sendEvent, (const std::string&, const std::string&, const std::string&), (override));
};

} // namespace Kestrel::Test
