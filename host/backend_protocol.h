// The TLV commands between the gateway and the backend: command codes, header
// word and cell tags. The plug-in's own commands are written out in its
// operations; this header names them for the reference host, the simulated
// backend and the tests. docs/backend-protocol.md describes each command.
#ifndef NOX_HOST_BACKEND_PROTOCOL_H_
#define NOX_HOST_BACKEND_PROTOCOL_H_

#include <cstdint>

namespace proto {

constexpr uint32_t kWord = 13;  // second header word of every record

// Certificate and CRL import (sent by the plug-in).
constexpr uint32_t kCertTempPath = 0xE0000052;
constexpr uint32_t kCertCheck = 0xE0000049;
constexpr uint32_t kCrlImportPath = 0xE000006E;
constexpr uint32_t kCrlSave = 0xE000006F;
constexpr uint32_t kImportEvent = 0x00C9009B;
constexpr uint32_t kImportTarget = 0xE027;  // tag 0 of the import commands
constexpr unsigned short kTagPath = 70;
constexpr unsigned short kTagEventKind = 1;     // 100 certificate, 101 CRL
constexpr unsigned short kTagEventOutcome = 3;  // 0 success, 1 failure

// Alarms: the 64-bit command given to queryAlarm; high word = header word.
constexpr unsigned long long kAlarmList = 0xd00c90041ULL;
constexpr unsigned long long kAlarmCount = 0xd00c90096ULL;
// Request cells of both alarm commands (absent = no condition).
constexpr unsigned short kTagStart = 1;      // uint32, first row (0-based)
constexpr unsigned short kTagLimit = 2;      // uint32, rows at most
constexpr unsigned short kTagSeverity = 3;   // uint32, 1 critical .. 4 warning
constexpr unsigned short kTagBeginTime = 4;  // uint64, seconds since the epoch
constexpr unsigned short kTagEndTime = 5;    // uint64
constexpr unsigned short kTagHistory = 6;    // uint32, the queryAlarm flag
// Reply: record 0 is the summary, tag 9 = total (list) or count (count);
// records 1.. are alarms (list only).
constexpr unsigned short kTagTotal = 9;
constexpr unsigned short kTagAlarmId = 1;         // uint64
constexpr unsigned short kTagAlarmSeverity = 2;   // uint32
constexpr unsigned short kTagAlarmName = 3;       // string
constexpr unsigned short kTagAlarmSource = 4;     // string
constexpr unsigned short kTagAlarmOccurTime = 5;  // uint64
constexpr unsigned short kTagAlarmClearTime = 6;  // uint64, 0 while active
constexpr unsigned short kTagAlarmDetail = 7;     // string

// Managed objects: command = objType << 16 | operation, header word 13.
constexpr uint32_t kMoGetById = 0x0000;  // tag 0: the object id (string)
constexpr uint32_t kMoList = 0xC000;     // tags kTagStart, kTagLimit, kTagSort, kTagFilter
constexpr uint32_t kMoCount = 0xC001;    // tag kTagFilter; reply record 0 tag 9 = count
constexpr unsigned short kTagObjectId = 0;
constexpr unsigned short kTagSort = 3;    // string, a field name, "-" in front for descending
constexpr unsigned short kTagFilter = 4;  // string, compact JSON object field -> value
inline uint32_t moCommand(uint32_t objType, uint32_t operation) {
  return (objType << 16) | (operation & 0xFFFF);
}

// Tasks (object type 0xE012): cells of a task record.
constexpr uint32_t kTaskObjType = 0xE012;
constexpr unsigned short kTagTaskId = 1;          // string
constexpr unsigned short kTagTaskName = 2;        // string
constexpr unsigned short kTagTaskType = 3;        // uint32, enumeration task_type
constexpr unsigned short kTagTaskStatus = 4;      // uint32, enumeration task_status
constexpr unsigned short kTagTaskProgress = 5;    // uint32, percent
constexpr unsigned short kTagTaskStartTime = 6;   // uint64
constexpr unsigned short kTagTaskEndTime = 7;     // uint64, 0 while running
constexpr unsigned short kTagTaskResource = 8;    // string, what the task protects
constexpr unsigned short kTagTaskDetail = 0x58;   // string, JSON array of progress entries
constexpr unsigned short kTagTaskErrorInfo = 0x62;  // JSON object {"code": ..., ...}

// Non-managed-object queries: command = objType << 16 | opCode.
// Database-backup storage configuration (objType 0x62, opCode 0xDE).
constexpr uint32_t kStorageConfObjType = 0x62;
constexpr uint32_t kStorageConfOpCode = 0xDE;
constexpr unsigned short kTagResultCode = 9;     // string, "0" = success
constexpr unsigned short kTagResultParams = 10;  // string, "#@#"-joined parameters
constexpr unsigned short kTagStorageType = 11;   // uint32, enumeration storage_type
constexpr unsigned short kTagStoragePath = 12;   // string
constexpr unsigned short kTagStorageCapacity = 13;  // uint64, bytes
constexpr unsigned short kTagStorageUsed = 14;      // uint64, bytes
constexpr unsigned short kTagStorageRetention = 15; // uint32, days
constexpr unsigned short kTagStorageName = 16;      // string

// Login and logout.
constexpr uint32_t kLogin = 0x00C90010;
constexpr uint32_t kLogout = 0x00C90011;
constexpr unsigned short kTagUserName = 1;      // string
constexpr unsigned short kTagPassword = 2;      // string (never logged)
constexpr unsigned short kTagScope = 3;         // string
constexpr unsigned short kTagClientAddress = 4; // string
constexpr unsigned short kTagLanguage = 5;      // string
constexpr unsigned short kTagUserId = 6;        // string (reply)
constexpr unsigned short kTagLoginMark = 76;    // reply: 3 or 4 marks state 8
constexpr unsigned short kTagUserState = 64;    // reply: 3 -> 1, 4 -> 3, 5 -> 4
constexpr unsigned short kTagPasswordState = 78;  // reply: 2 -> state 2

// The change log: every change of a task or an alarm gets the next sequence
// number. "Changes after N" is a long poll: the backend holds the call until
// there is a change after N or the wait is over (then it answers with none).
constexpr uint32_t kChangesAfter = 0x00C900A0;
constexpr unsigned short kTagChangeAfter = 1;  // uint64, the last sequence number the caller has
constexpr unsigned short kTagChangeWait = 2;   // uint32, milliseconds to hold the call at most
constexpr unsigned short kTagChangeLimit = 3;  // uint32, changes at most
constexpr unsigned short kTagChangeTail = 4;   // uint32, 1: the newest `limit` changes instead
// Reply record 0: where the log stands.
constexpr unsigned short kTagChangeHead = 1;   // uint64, the newest sequence number (0: none yet)
constexpr unsigned short kTagChangeFloor = 2;  // uint64, changes up to this one are not kept
// Records 1..: one per change, in order, the changed row as it is now: a
// task record (command: the task list's) or an alarm record (the alarm
// list's), with these cells added.
constexpr unsigned short kTagChangeSeq = 0x70;      // uint64
constexpr unsigned short kTagChangeKind = 0x71;     // uint32, kChangeTask or kChangeAlarm
constexpr unsigned short kTagAlarmNameZh = 0x72;    // string, the alarm's name in Chinese
constexpr unsigned short kTagAlarmDetailZh = 0x73;  // string, its detail in Chinese
constexpr uint32_t kChangeTask = 1;
constexpr uint32_t kChangeAlarm = 2;

// Backend error codes.
constexpr long long kErrInvalidArgument = 0x03000003;
constexpr long long kErrNotFound = 0x03000004;
constexpr long long kErrUnknownCommand = 0x03000005;
constexpr long long kErrLoginFailed = 0x03000010;   // wrong user name or password
constexpr long long kErrNotLoggedIn = 0x03000011;   // no or expired session
// The user may not log in with this scope. Logins never answer it (the host
// and the simulated backend answer kErrLoginFailed instead, so that a refused
// scope tells nothing about the password); kept for backends that send it.
constexpr long long kErrScopeDenied = 0x03000012;
constexpr long long kErrLoginThrottled = 0x03000013;  // too many failed logins, try later
constexpr long long kErrVerifyCode = 0x03000014;   // verification code missing, wrong or used
constexpr long long kErrVerifyCodeExpired = 0x03000015;  // the challenge died unanswered
// A login's user name, password or other text holds a control character or
// is not valid UTF-8 (the host refuses it before the backend is asked).
constexpr long long kErrLoginBadText = 0x03000016;
constexpr long long kErrCertNotSafe = 0x60E01D0A;  // "not safe" verdict of the check
constexpr long long kErrCertUnreadable = 0x60E01D01;   // neither PEM nor DER
constexpr long long kErrCertExpired = 0x60E01D02;      // outside its validity dates
constexpr long long kErrCertNotCa = 0x60E01D03;        // no CA constraint or keyCertSign usage
constexpr long long kErrCertWeakKey = 0x60E01D04;      // RSA < 2048 or EC < 256 bits
constexpr long long kErrCrlUnreadable = 0x60E01D11;
constexpr long long kErrCrlUnknownIssuer = 0x60E01D12;
constexpr long long kErrCrlBadSignature = 0x60E01D13;
constexpr long long kErrCrlExpired = 0x60E01D14;   // next update in the past
constexpr long long kErrStorage = 0x03000020;      // the backend's store failed

}  // namespace proto

#endif  // NOX_HOST_BACKEND_PROTOCOL_H_
