// Keeps the page's files, so that the page opens without the controller and says what it last knew.
// Browsers run it over HTTPS and on the controller's own machine only.
const kStore = "nuvio-connect";
const kFiles = ["./", "style.css", "app.js", "icon.svg", "manifest.json"];

// From the first visit on: the page that brought this worker was fetched without it.
self.addEventListener("install", (event) => {
  self.skipWaiting();
  event.waitUntil(caches.open(kStore).then((store) => store.addAll(kFiles)));
});

self.addEventListener("fetch", (event) => {
  const url = new URL(event.request.url);
  const is_page = event.request.method === "GET" && url.origin === location.origin &&
                  !/\/(api|content|cover)\//.test(url.pathname);
  if (!is_page) return;
  const file = url.origin + url.pathname;  // whatever was asked of it
  event.respondWith((async () => {
    const store = await caches.open(kStore);
    try {
      const answer = await fetch(event.request);
      if (answer.ok) await store.put(file, answer.clone());
      return answer;
    } catch (failure) {
      const kept = await store.match(file);
      if (kept) return kept;
      throw failure;
    }
  })());
});
