"""The settings page end to end: lighttpd, the CGI programs, cgiconn and
coresim (tools/web/serve), driven through HTTP and a headless Chromium.
Runs inside tools/sandbox: web_test.py BIN_DIR PAGE_DIR OUT_DIR"""
import json, os, signal, socket, subprocess, sys, tempfile, time, unittest
import urllib.error, urllib.request
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN, PAGE, OUT = sys.argv[1:4]

def until(check, seconds):
    deadline = time.monotonic() + seconds
    while not check():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True

def command(form, method='GET'):
    url = f'{URL}cgi-bin/command' + (f'?{form}' if method == 'GET' else '')
    data = form.encode() if method != 'GET' else None
    try:
        with urllib.request.urlopen(urllib.request.Request(url, data, method=method)) as r:
            return r.status, json.load(r)
    except urllib.error.HTTPError as e:
        return e.code, json.load(e)

def queued_messages():
    rows = subprocess.run(['ipcs', '-q'], capture_output=True, text=True).stdout.splitlines()
    return sum(int(r.split()[-1]) for r in rows if r.startswith('0x'))

def start_cgi(form):
    env = {'REQUEST_METHOD': 'GET', 'QUERY_STRING': form, 'PLATFORM_CMDLINE': '/tmp/cmdline'}
    return subprocess.Popen([f'{BIN}/command'], env=env, stdout=subprocess.PIPE)

def setUpModule():
    global URL, server, browser
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        port = s.getsockname()[1]
    URL = f'http://127.0.0.1:{port}/'
    server = subprocess.Popen([f'{ROOT}/tools/web/serve', BIN, PAGE, str(port), tempfile.mkdtemp()],
                              stdout=subprocess.PIPE, text=True)
    assert server.stdout.readline().startswith('serving'), 'the stack did not start'
    options = webdriver.ChromeOptions()
    for flag in ('headless', 'no-sandbox', 'disable-gpu', 'disable-quic', 'no-first-run',
                 'disable-background-networking', 'disable-component-update', 'disable-sync',
                 'window-size=1280,1000', f'user-data-dir={tempfile.mkdtemp()}'):
        options.add_argument('--' + flag)
    options.binary_location = '/usr/bin/chromium'
    browser = webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)

def tearDownModule():
    browser.quit()
    server.send_signal(signal.SIGTERM)
    server.communicate()

class WebTest(unittest.TestCase):
    def test_answers_of_the_command_program(self):
        with open(os.path.join(os.path.dirname(__file__), 'http_cases.tsv')) as cases:
            for line in (l.rstrip('\n') for l in cases if not l.startswith('#')):
                method, form, status, answer = line.split('\t')
                with self.subTest(method=method, form=form[:40]):
                    self.assertEqual(command(form, method), (int(status), json.loads(answer)))

    def test_page_reads_sets_follows_and_refuses(self):
        browser.get(URL)
        row = lambda name: browser.find_element(By.ID, f'setting-{name}')
        value = lambda name: row(name).find_element(By.CLASS_NAME, 'value').text
        wait = WebDriverWait(browser, 10)
        wait.until(lambda _: value('speaker-volume') == '9')
        field = row('speaker-volume').find_element(By.NAME, 'value')
        if field.tag_name == 'select':
            Select(field).select_by_value('12')
        else:
            field.send_keys('12')
        row('speaker-volume').find_element(By.TAG_NAME, 'button').click()
        wait.until(lambda _: value('speaker-volume') == '12')
        self.assertEqual(row('speaker-volume').find_element(By.CLASS_NAME, 'reply').text,
                         'val speaker-volume 12')

        browser.execute_script('window.notReloaded = true')
        wait.until(lambda _: browser.find_element(By.ID, 'live').text == 'live')
        # A second stream beside the page's: each sees every notification.
        with urllib.request.urlopen(URL + 'cgi-bin/events', timeout=10) as stream:
            subprocess.run([f'{BIN}/cli', '-c', 'set ringer-volume 7'], check=True, timeout=10,
                           env={**os.environ, 'PLATFORM_CMDLINE': '/tmp/cmdline'},
                           stdout=subprocess.DEVNULL)
            wait.until(lambda _: value('ringer-volume') == '7')
            self.assertIn(b'data: notify audio.ringer-volume 7\n', [stream.readline() for _ in range(3)])
        self.assertTrue(browser.execute_script('return window.notReloaded'))

        browser.find_element(By.ID, 'line').send_keys('get md5-password\n')
        out = browser.find_element(By.ID, 'console-out')
        wait.until(lambda _: out.text == 'command syntax error')
        self.assertIn('error', out.get_attribute('class'))
        browser.execute_script("document.getElementById('topic-audio').scrollIntoView()")
        browser.save_screenshot(os.path.join(OUT, 'web-page.png'))

    def test_replies_left_behind_never_fill_the_connectors_queue(self):
        core = int(subprocess.run(['pidof', 'coresim'], capture_output=True).stdout)
        os.kill(core, signal.SIGSTOP)
        killed = start_cgi('cmd=get+mute')
        marker = f'/tmp/cgi_rx_{killed.pid}.txt'
        self.assertTrue(until(lambda: os.path.exists(marker), 2))
        killed.kill()
        killed.communicate()
        os.kill(core, signal.SIGCONT)
        self.assertTrue(until(lambda: queued_messages() == 1, 2))
        self.assertTrue(os.path.exists(marker))
        self.assertTrue(until(lambda: not os.path.exists(marker) and queued_messages() == 0, 11))

        os.kill(core, signal.SIGSTOP)
        try:
            burst = [start_cgi('cmd=get+mute') for _ in range(40)]
            self.assertTrue(until(lambda: sum(p.poll() is not None for p in burst) == 24, 5))
        finally:
            os.kill(core, signal.SIGCONT)
        statuses = sorted(p.communicate()[0].split(b' ')[1] for p in burst)
        self.assertEqual(statuses, [b'503'] * 24 + [b'504'] * 16)
        self.assertTrue(until(lambda: queued_messages() == 0, 2))
        self.assertEqual(command('cmd=get+mute')[0], 200)

if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
