// Web URLs (http, https, ws, wss) read as the browser that opens them reads
// them: the WHATWG URL Standard's basic parser for these schemes, without a
// base URL, and its serialisation. Linear in the length of the text; the
// host goes through the platform's IDNA mapping only when it is not ASCII.
#ifndef DISPATCHER_WEB_URL_H_
#define DISPATCHER_WEB_URL_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace dispatcher {

enum class WebUrlStatus {
  kParsed,
  kNotWeb,          // another scheme, or none
  kRejected,        // a web scheme, but the standard rejects the URL
  kHostUnreadable,  // a host that is not ASCII, which the platform could not map
};

// What the parser read. Keeps a view of the text it was given, which must
// outlive it.
class WebUrl {
 public:
  WebUrlStatus status() const { return status_; }
  // The serialisation, as `new URL(text).href` gives it (kParsed only).
  std::string Href() const;
  // The serialisation up to ASCII case (only the scheme and the host may be
  // in another case): a view of the text it was given whenever that is the
  // case for a prefix of it, as for every URL that is canonical already.
  std::string_view text() const;
  // Whether text() is the whole text it was given.
  bool is_input() const {
    return status_ == WebUrlStatus::kParsed && in_input_ && offset_ == 0 && size_ == input_.size();
  }
  // Where the authority (behind "//") and the host begin and end in text().
  size_t authority_begin() const { return authority_begin_; }
  size_t host_begin() const { return host_begin_; }
  size_t host_end() const { return host_end_; }

 private:
  friend WebUrl ParseWebUrl(std::string_view input);
  WebUrlStatus status_ = WebUrlStatus::kNotWeb;
  std::string_view input_;
  // text() is input_.substr(offset_, size_) when in_input_, else owned_.
  bool in_input_ = false;
  size_t offset_ = 0, size_ = 0;
  std::string owned_;
  size_t scheme_end_ = 0, authority_begin_ = 0, host_begin_ = 0, host_end_ = 0;
};

WebUrl ParseWebUrl(std::string_view input);

}  // namespace dispatcher

#endif  // DISPATCHER_WEB_URL_H_
