// Owned handles of libcurl, and options whose first failure is kept.
#pragma once

#include <memory>

#include <curl/curl.h>

#include "prax/release_with.h"

using CurlHandle = std::unique_ptr<CURL, ReleaseWith<curl_easy_cleanup>>;
using CurlList = std::unique_ptr<curl_slist, ReleaseWith<curl_slist_free_all>>;
using CurlMime = std::unique_ptr<curl_mime, ReleaseWith<curl_mime_free>>;
using CurlUrl = std::unique_ptr<CURLU, ReleaseWith<curl_url_cleanup>>;
using CurlText = std::unique_ptr<char, ReleaseWith<curl_free>>;

class CurlOptions {
 public:
  explicit CurlOptions(CURL* handle) : m_handle(handle) {}

  template <class T>
  void Set(CURLoption option, T value) {
    Keep(curl_easy_setopt(m_handle, option, value));
  }
  void Keep(CURLcode code) {
    if (m_result == CURLE_OK) m_result = code;
  }
  CURLcode Result() const { return m_result; }

 private:
  CURL* const m_handle;
  CURLcode m_result = CURLE_OK;
};
