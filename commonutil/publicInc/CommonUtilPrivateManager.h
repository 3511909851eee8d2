// The config cache and a few small services for the SDK's other libraries.
//
// An entry is kept twice: in the platform's memory cache, under "db__" + its key, and in the
// encrypted database, which the command worker alone works on. In the database key and value end at
// their first NUL byte, so that keys which differ behind one are one entry there. Values are in
// clear in memory; at rest the database encrypts them.
//
// Any thread may call any operation; there is no state. What needs the worker blocks until it
// has got round to it; once the worker is stopped the first such call throws
// std::future_error and the later ones never return.
#pragma once

#include <string>
#include <vector>

#include "cacheDB/CommonUtilDBInterface.h"
#include "publicInc/CommonUtilData.h"
#include "publicInc/ZelExport.h"
#include "util/PublicUtil.h"

namespace commonutil {

// The one instance of the process; it has no state.
class ZEL_API CommonUtilPrivateManager {
 public:
  // Lives to the end of the process.
  static CommonUtilPrivateManager& getInst();
  CommonUtilPrivateManager(const CommonUtilPrivateManager&) = delete;
  CommonUtilPrivateManager& operator=(const CommonUtilPrivateManager&) = delete;

  // --- Config cache ----------------------------------------------------------
  // Codes of the database: kCacheBadArgument and kCacheNotReady of a delete, kBadParameter,
  // kQueryNotReady and kQueryNoEntry of a query. kPushNoMemory without memory, or without a thread
  // for the worker.

  // Stores the entry, replacing an earlier one of its key. It can be queried when this returns;
  // the database follows on the worker, and nobody is told when it fails. Returns 0, or the
  // memory cache's code when it does not take the value.
  int SingleAddConfigCache(const ZelConfigCache& row);
  // Stores `count` entries, the database first and all in one transaction. `rows` stays the
  // caller's. Returns 0 when the memory cache has taken at least one, whatever became of the
  // database; kFailed when it took none; kCacheBadArgument for null or a count below 1.
  int BatchAddConfigCache(const ZelConfigCache* rows, int count);
  // Removes the entry from both. Waits for the worker, and so for every add before it. Returns
  // the database's code: 0 also when there was no such entry.
  int DeleteConfigCacheByKey(const std::string& key);
  // Fills `out`, the caller's array of `*count` entries, and sets `*count` to the entries
  // filled: one when the key is known. A value in memory is taken from there, at once, and of
  // `out[0]` only the value is written then. Otherwise the worker asks the database, and what it
  // finds is not put into memory. Returns 0, kBadParameter for null or a count below 1, -1 when
  // there is no memory for `*count` entries, or the database's code.
  int QueryConfigCacheByKey(const std::string& key, ZelConfigCache* out, int* count);

  // As SingleAddConfigCache. A value that is not taken appears in the log.
  bool addConfigInfo(std::string key, std::string value);
  // True with the value of `key`; false with `value` untouched when there is none.
  bool queryConfigInfoByKey(std::string key, std::string& value);

  // --- SBC addresses ---------------------------------------------------------
  // A list is a text of up to 511 characters: IPv4 addresses, each with an optional ":" and
  // port, separated by "," or by ";". A list with a "," is separated by that alone.

  // Keeps the addresses on the same side of the public boundary as `mrcIp`, in their order and
  // joined by ";", in `sbcAddress`, a NUL-terminated text in a buffer of `len` bytes. When there
  // is no such address, or the list is too long, the buffer stays as it is; when the result does
  // not fit, it holds an empty text. What is no address counts as not public. Null does nothing.
  void CheckSbcAddressByMrcIp(char* sbcAddress, const char* mrcIp, int len);
  // Append the entries of `text` to `out`. Empty ones are skipped, blanks are kept, a text that
  // is too long adds nothing. A list without a separator is one entry, of any length.
  void ParseIPList(const std::string& text, std::vector<std::string>& out);
  // The same with one delimiter that the caller chooses.
  void SplitStrByDelim(const std::string& text, std::vector<std::string>& out,
                       const std::string& delim);

  // --- Secrets kept in memory ------------------------------------------------
  // Under a key of this process; of no use in another one.

  // The empty text on any failure, also for an empty `text`.
  std::string EncryptThenBase64Encode(std::string& text);
  // Fills `out`, of `outLength` bytes, without a NUL of its own: zero it first. 0 on success.
  int Base64DecodeThenDecrypt(const std::string& text, char* out, int outLength);
  // The empty text on any failure.
  std::string Base64DecodeThenDecrypt(const std::string& text);

  // --- Masking ---------------------------------------------------------------

  // As PublicUtil::filterWord.
  std::string FilterWord(const std::string& text, FILTER_WORD_TYPE type);

  // --- Terminal --------------------------------------------------------------

  // Tells the tracking library and conference control about this terminal. A text too long for
  // conference control is empty there. Always 0.
  int ConfigPublicSdkParam(const tagZelUtilPublicSdkParam& param);
  // Returns the login library's result, or kBadParameter for null. A text without its NUL counts
  // as empty.
  int ConfigSmartRoomParam(const tagZelUtilsSmartRoomParam* param);
  // As CommonUtil::SetDeviceGuid was given it; empty before.
  std::string GetDeviceGuid();

 private:
  CommonUtilPrivateManager() = default;
};

}  // namespace commonutil
